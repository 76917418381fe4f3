#include <mdxlib/tags/TagNames.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdicent.h"
#include "dcmtk/dcmdata/dcdict.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>

#include <cstdlib>
#include <cstring>

namespace {

// Names are looked up in the dictionary by a linear search over thousands of
// entries, far too slow for QA jobs that resolve the same names per image.
// Only successes are remembered: a miss must stay a miss for the caller's
// preset key, and failures are rare enough not to matter.
QBasicMutex localDictMutex;

QHash<QByteArray, DcmDictEntry const*>& nameCache()
{
    static QHash<QByteArray, DcmDictEntry const*> cache;
    return cache;
}

DcmDictEntry const* cachedEntry(char const* name)
{
    QMutexLocker lock(&localDictMutex);
    return nameCache().value(QByteArray(name), nullptr);
}

void cacheEntry(char const* name, DcmDictEntry const* entry)
{
    QMutexLocker lock(&localDictMutex);
    nameCache().insert(QByteArray(name), entry);
}

} // namespace

char const* reservedTagName(DcmTagKey const& key)
{
    struct Reserved
    {
        Uint16 element;
        char const* name;
    };
    static Reserved const names[] = {
        {0x7100, "MDX_DicomFilePath"},     {0x7101, "MDX_FileSuffix"},
        {0x7102, "MDX_TransferSyntax"},    {0x7103, "MDX_VolumeIndices"},
        {0x7105, "MDX_PreviewData"},       {0x7106, "MDX_PreviewDataIndex"},
        {0x7107, "MDX_FromDatabase"},      {0x7108, "MDX_GeneratorMark"},
        {0x710A, "MDX_QAVersion"},         {0x7120, "MDX_AbstractSeriesNumber"},
        {0x7121, "MDX_AbstractLocalizer"},
    };
    if (key.getGroup() != 0x0006)
        return nullptr;
    for (Reserved const& reserved : names) {
        if (reserved.element == key.getElement())
            return reserved.name;
    }
    return nullptr;
}

std::map<std::string, std::string> createLegacyDicomTags()
{
    // Names that earlier DCMTK dictionaries used, as they still appear in
    // stored QA jobs and configuration. "(deleted)" marks attributes that
    // later dictionaries dropped; no dictionary holds that name, so such
    // names stay unresolved.
    return {
        {"ReferringPhysiciansName", "ReferringPhysicianName"},
        {"ReferringPhysiciansAddress", "ReferringPhysicianAddress"},
        {"ReferringPhysiciansTelephoneNumbers", "ReferringPhysicianTelephoneNumbers"},
        {"ManufacturersModelName", "ManufacturerModelName"},
        {"ReferencedGrayscalePresentationStateSequence", "ReferencedPresentationStateSequence"},
        {"PatientsName", "PatientName"},
        {"PatientsBirthDate", "PatientBirthDate"},
        {"PatientsBirthTime", "PatientBirthTime"},
        {"PatientsSex", "PatientSex"},
        {"PatientsInsurancePlanCodeSequence", "PatientInsurancePlanCodeSequence"},
        {"PatientsPrimaryLanguageCodeSequence", "PatientPrimaryLanguageCodeSequence"},
        {"PatientsPrimaryLanguageModifierCodeSequence", "PatientPrimaryLanguageModifierCodeSequence"},
        {"PatientsMothersBirthName", "PatientMotherBirthName"},
        {"PatientsTelephoneNumbers", "PatientTelephoneNumbers"},
        {"PatientsReligiousPreference", "PatientReligiousPreference"},
        {"PatientsSexNeutered", "PatientSexNeutered"},
        {"DeIdentificationMethod", "DeidentificationMethod"},
        {"DeIdentificationMethodCodeSequence", "DeidentificationMethodCodeSequence"},
        {"InterventionDrugSequence", "InterventionDrugCodeSequence"},
        {"SecondaryCaptureDeviceManufacturers", "SecondaryCaptureDeviceManufacturer"},
        {"SecondaryCaptureDeviceManufacturersModelName", "SecondaryCaptureDeviceManufacturerModelName"},
        {"RETIRED_HardcopyDeviceManufacturersModelName", "RETIRED_HardcopyDeviceManufacturerModelName"},
        {"ExposureInMicroAs", "ExposureInuAs"},
        {"DBDt", "dBdt"},
        {"DetectorManufacturersModelName", "DetectorManufacturerModelName"},
        {"ExposureTimeInMicroS", "ExposureTimeInuS"},
        {"XRayTubeCurrentInMicroA", "XRayTubeCurrentInuA"},
        {"SpatialPreSaturation", "SpatialPresaturation"},
        {"DeCoupling", "Decoupling"},
        {"DeCoupledNucleus", "DecoupledNucleus"},
        {"DeCouplingFrequency", "DecouplingFrequency"},
        {"DeCouplingMethod", "DecouplingMethod"},
        {"DeCouplingChemicalShiftReference", "DecouplingChemicalShiftReference"},
        {"RETIRED_ChemicalShiftsMinimumIntegrationLimitInHz",
         "RETIRED_ChemicalShiftMinimumIntegrationLimitInHz"},
        {"RETIRED_ChemicalShiftsMaximumIntegrationLimitInHz",
         "RETIRED_ChemicalShiftMaximumIntegrationLimitInHz"},
        {"ChemicalShiftsMinimumIntegrationLimitInPpm", "ChemicalShiftMinimumIntegrationLimitInppm"},
        {"ChemicalShiftsMaximumIntegrationLimitInPpm", "ChemicalShiftMaximumIntegrationLimitInppm"},
        {"ExposureTimeInMs", "ExposureTimeInms"},
        {"XRayTubeCurrentInMA", "XRayTubeCurrentInmA"},
        {"ExposureInMAs", "ExposureInmAs"},
        {"DCM_RETIRED_Attribute00189445UsedInadvertentlyInAProduct", "(deleted)"},
        {"ExclusionStartDateTime", "ExclusionStartDatetime"},
        {"RETIRED_LookupTableNumber", "RETIRED_LUTNumber"},
        {"RETIRED_Attribute00280020UsedInadvertentlyInAProduct", "(deleted)"},
        {"ImplantPresent", "BreastImplantPresent"},
        {"FrameNumbersOfInterestFOI", "FrameNumbersOfInterest"},
        {"FramesOfInterestDescription", "FrameOfInterestDescription"},
        {"IssuerOfAdmissionID", "RETIRED_IssuerOfAdmissionID"},
        {"PatientsInstitutionResidence", "PatientInstitutionResidence"},
        {"ScheduledPerformingPhysiciansName", "ScheduledPerformingPhysicianName"},
        {"SpecimenAccessionNumber", "RETIRED_SpecimenAccessionNumber"},
        {"SpecimenSequence", "RETIRED_SpecimenSequence"},
        {"SlideIdentifier", "RETIRED_SlideIdentifier"},
        {"PersonsAddress", "PersonAddress"},
        {"PersonsTelephoneNumbers", "PersonTelephoneNumbers"},
        {"OrderEnterersLocation", "OrderEntererLocation"},
        {"ScheduledProcedureStepStartDateAndTime", "ScheduledProcedureStepModificationDateTime"},
        {"ExpectedCompletionDateAndTime", "ExpectedCompletionDateTime"},
        {"HumanPerformersOrganization", "HumanPerformerOrganization"},
        {"HumanPerformersName", "HumanPerformerName"},
        {"EntranceDoseInMGy", "EntranceDoseInmGy"},
        {"IntermarkerDistance", "InterMarkerDistance"},
        {"ContentCreatorsName", "ContentCreatorName"},
        {"ContentCreatorsIdentificationCodeSequence", "ContentCreatorIdentificationCodeSequence"},
        {"3DRenderingType", "ThreeDRenderingType"},
        {"UPSProgressInformationSequence", "UnifiedProcedureStepProgressInformationSequence"},
        {"UPSPerformedProcedureSequence", "UnifiedProcedureStepPerformedProcedureSequence"},
        {"UPSListStatus", "UnifiedProcedureStepListStatus"},
        {"SOPAuthorizationDateAndTime", "SOPAuthorizationDateTime"},
    };
}

namespace {

// Built before main() runs, so that parallel callers of parseDicomTag only
// ever read it.
std::map<std::string, std::string> const LegacyDicomTags = createLegacyDicomTags();

} // namespace

bool isExpliciteDicomTagRepresentation(char const* text, DcmTagKey& key)
{
    if (!text || std::strlen(text) != 11 || text[0] != '(' || text[5] != ',' || text[10] != ')')
        return false;
    char group[5] = {text[1], text[2], text[3], text[4], '\0'};
    char element[5] = {text[6], text[7], text[8], text[9], '\0'};
    char* end = nullptr;
    long const groupValue = std::strtol(group, &end, 16);
    if (end == group)
        return false;
    long const elementValue = std::strtol(element, &end, 16);
    if (end == element)
        return false;
    key.set(static_cast<Uint16>(groupValue), static_cast<Uint16>(elementValue));
    return true;
}

bool parseDicomTag(char const* name, DcmTagKey& key)
{
    if (isExpliciteDicomTagRepresentation(name, key))
        return true;
    if (!name)
        return true;

    DcmDataDictionary const& dict = dcmDataDict.rdlock();

    if (DcmDictEntry const* hit = cachedEntry(name)) {
        DcmTagKey const found = hit->getKey();
        dcmDataDict.rdunlock();
        key = found;
        return true;
    }

    // Today's name first. An odd group there is a private entry that merely
    // shares the name with a retired standard one, so the standard one wins.
    DcmDictEntry const* first = dict.findEntry(name);
    DcmDictEntry const* entry = nullptr;
    if (first && !(first->getGroup() & 1)) {
        entry = first;
    } else {
        std::string const retired = std::string("RETIRED_") + name;
        entry = dict.findEntry(retired.c_str());
        if (!entry) {
            auto const legacy = LegacyDicomTags.find(name);
            if (legacy != LegacyDicomTags.end())
                entry = dict.findEntry(legacy->second.c_str());
            if (!entry)
                entry = first;
        }
    }

    if (!entry) {
        dcmDataDict.rdunlock();
        return true;
    }

    cacheEntry(name, entry);
    DcmTagKey const found = entry->getKey();
    dcmDataDict.rdunlock();
    key = found;
    return true;
}
