#include <mdxlib/platform/McCreateUIDs.h>

#include <QUuid>

#include <algorithm>
#include <array>

std::string McCreateUIDs::createUID()
{
    // Decimal form of the 128-bit UUID: repeated division of four 32-bit
    // limbs by ten, most significant limb first.
    QByteArray const raw = QUuid::createUuid().toRfc4122();
    std::array<uint32_t, 4> limbs{};
    for (int i = 0; i < 16; ++i)
        limbs[static_cast<size_t>(i / 4)] =
            (limbs[static_cast<size_t>(i / 4)] << 8) | static_cast<uint8_t>(raw[i]);

    std::string digits;
    auto isZero = [&limbs] {
        return std::all_of(limbs.begin(), limbs.end(), [](uint32_t v) { return v == 0; });
    };
    do {
        uint64_t remainder = 0;
        for (uint32_t& limb : limbs) {
            uint64_t const value = (remainder << 32) | limb;
            limb = static_cast<uint32_t>(value / 10);
            remainder = value % 10;
        }
        digits.push_back(static_cast<char>('0' + remainder));
    } while (!isZero());
    std::reverse(digits.begin(), digits.end());
    return "2.25." + digits;
}
