#include "BundleCodec.h"

#include <cstring>
#include <string>
#include <vector>

namespace volumefile {

namespace {

enum ParameterKind : unsigned char
{
    KindText = 0,
    KindInt = 1,
    KindReal = 2
};

// Nesting deeper than DICOM sequences ever go is corrupt input, and a
// bound keeps the recursion's stack small whatever the bytes say.
constexpr int kMaxDepth = 32;

QByteArray text(std::string const& s)
{
    return QByteArray(s.data(), static_cast<int>(s.size()));
}

void writeDouble(LmMsg& out, double value)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    out << static_cast<unsigned int>(bits & 0xFFFFFFFFu) << static_cast<unsigned int>(bits >> 32);
}

double readDouble(LmMsg& in)
{
    unsigned int low = 0, high = 0;
    in >> low >> high;
    uint64_t const bits = (static_cast<uint64_t>(high) << 32) | low;
    double value = 0.0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// A count can't exceed the bytes left, as every entry takes at least one;
// checking that first keeps a corrupt count from reserving memory.
bool readCount(LmMsg& in, unsigned int& count, size_t bytesPerEntry)
{
    in >> count;
    if (in.failed() || static_cast<uint64_t>(count) * bytesPerEntry > in.bytesAvailable()) {
        in.markFailed();
        return false;
    }
    return true;
}

bool readBundleAt(LmMsg& in, HxParamBundle& bundle, int depth)
{
    if (depth > kMaxDepth) {
        in.markFailed();
        return false;
    }
    unsigned int numParameters = 0;
    if (!readCount(in, numParameters, 5))
        return false;
    for (unsigned int i = 0; i < numParameters; ++i) {
        QByteArray name;
        unsigned char kind = 0;
        in >> name >> kind;
        if (in.failed())
            return false;
        std::string const key = name.toStdString();
        if (kind == KindText) {
            QByteArray value;
            in >> value;
            bundle.set(key.c_str(), value.toStdString());
        } else if (kind == KindInt) {
            unsigned int count = 0;
            if (!readCount(in, count, 4))
                return false;
            std::vector<int> values(count);
            for (int& v : values)
                in >> v;
            bundle.set(key.c_str(), values);
        } else if (kind == KindReal) {
            unsigned int count = 0;
            if (!readCount(in, count, 8))
                return false;
            std::vector<double> values(count);
            for (double& v : values)
                v = readDouble(in);
            bundle.set(key.c_str(), values);
        } else {
            in.markFailed();
            return false;
        }
    }
    unsigned int numBundles = 0;
    if (!readCount(in, numBundles, 8))
        return false;
    for (unsigned int i = 0; i < numBundles; ++i) {
        QByteArray name;
        in >> name;
        if (in.failed())
            return false;
        HxParamBundle* sub = bundle.bundle(name.toStdString().c_str(), true);
        if (!readBundleAt(in, *sub, depth + 1))
            return false;
    }
    return !in.failed();
}

void writeBundleBody(LmMsg& out, HxParamBundle const& bundle)
{
    out << static_cast<unsigned int>(bundle.nParameters());
    for (int i = 0; i < bundle.nParameters(); ++i) {
        HxParameter const* p = bundle.parameter(i);
        out << text(p->name());
        switch (p->type()) {
        case HxParameter::Type::Text:
            out << static_cast<unsigned char>(KindText) << text(p->text());
            break;
        case HxParameter::Type::Int:
            out << static_cast<unsigned char>(KindInt) << static_cast<unsigned int>(p->dim());
            for (int n = 0; n < p->dim(); ++n)
                out << p->getNum(n);
            break;
        case HxParameter::Type::Real:
            out << static_cast<unsigned char>(KindReal) << static_cast<unsigned int>(p->dim());
            for (int n = 0; n < p->dim(); ++n)
                writeDouble(out, p->getReal(n));
            break;
        }
    }
    out << static_cast<unsigned int>(bundle.nBundles());
    for (int i = 0; i < bundle.nBundles(); ++i) {
        HxParamBundle const* sub = bundle.bundle(i);
        out << text(sub->name());
        writeBundleBody(out, *sub);
    }
}

} // namespace

void writeBundle(LmMsg& out, HxParamBundle const& bundle)
{
    writeBundleBody(out, bundle);
}

bool readBundle(LmMsg& in, HxParamBundle& bundle)
{
    return readBundleAt(in, bundle, 0);
}

} // namespace volumefile
