// Units in which a volume shows its values. Only the units of PET volumes
// are named here; the numbers are stable, they travel with volumes.
#pragma once

enum EnUnitTag : int
{
    UNIT_BQML = 1,     // activity concentration, Bq/ml
    UNIT_COUNTS = 3,   // counts, as stored
    UNIT_UNKNOWN = 19, // units the volume does not know
    UNIT_SUV_BW = 26,  // SUV by body weight
    UNIT_SUV_BSA = 27, // SUV by body surface area
    UNIT_SUV_LBM = 28  // SUV by lean body mass
};
