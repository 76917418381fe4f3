// LmMsg: the byte layout of its primitives, and reads past the end that
// must fail cleanly instead of touching foreign memory.
#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/platform/McCreateUIDs.h>

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <set>

namespace {

QByteArray bytesOf(LmMsg const& msg)
{
    return QByteArray(msg.dataPtr(), static_cast<int>(msg.size()));
}

TEST(LmMsg, primitivesAreLittleEndianAndRoundTrip)
{
    LmMsg msg;
    msg << static_cast<unsigned char>(0xAB) << static_cast<unsigned short>(0x1234) << 0x01020304
        << static_cast<unsigned int>(0xDEADBEEF) << 1.5f << QByteArray("hi");
    // The wire form: little-endian, a text as its 32-bit length and its bytes.
    EXPECT_EQ(bytesOf(msg).toHex(), QByteArray("ab341204030201efbeadde0000c03f020000006869"));

    McVec3i const vec(1, -2, 3);
    McBox3f const box(0.f, 1.f, 2.f, 3.f, 4.f, 5.f);
    McBox3i const ibox(-1, 1, -2, 2, -3, 3);
    McMat4f matrix;
    matrix.m[1][3] = 7.25f;
    msg << vec << box << ibox << matrix;

    LmMsg in(msg.dataPtr(), msg.size());
    unsigned char c = 0;
    unsigned short s = 0;
    int i = 0;
    unsigned int u = 0;
    float f = 0;
    QByteArray text;
    McVec3i vecOut;
    McBox3f boxOut;
    McBox3i iboxOut;
    McMat4f matrixOut;
    in >> c >> s >> i >> u >> f >> text >> vecOut >> boxOut >> iboxOut >> matrixOut;
    EXPECT_TRUE(!in.failed() && in.bytesAvailable() == 0);
    EXPECT_TRUE(c == 0xAB && s == 0x1234 && i == 0x01020304 && u == 0xDEADBEEFu && f == 1.5f && text == "hi");
    EXPECT_TRUE(vecOut == vec && boxOut == box && iboxOut == ibox && matrixOut == matrix);
}

TEST(LmMsg, readingPastTheEndOrAHugeTextCountYieldsZerosAndFails)
{
    char const bytes[3] = {1, 2, 3};
    LmMsg in(bytes, sizeof bytes);
    unsigned short s = 0;
    unsigned int u = 99;
    unsigned char c = 7;
    in >> s >> u >> c; // one byte left for the int: not enough
    EXPECT_EQ(s, 0x0201);
    EXPECT_TRUE(u == 0 && c == 0 && in.failed());
    EXPECT_EQ(in.bytesAvailable(), 0u);
    EXPECT_EQ(in.readRawBytes(1), nullptr);

    LmMsg msg;
    msg << static_cast<unsigned int>(0xFFFFFFF0) << static_cast<unsigned char>('x');
    LmMsg huge(msg.dataPtr(), msg.size());
    QByteArray text("old");
    huge >> text; // allocates nothing
    EXPECT_TRUE(text.isEmpty() && huge.failed());
}

TEST(LmMsg, writingToAViewCopiesIt)
{
    char const bytes[2] = {5, 6};
    LmMsg view(bytes, sizeof bytes);
    view << static_cast<unsigned char>(7);
    EXPECT_EQ(bytesOf(view), QByteArray("\x05\x06\x07", 3));
    EXPECT_EQ(bytes[0], 5); // the foreign bytes stay untouched
}

TEST(McCreateUIDs, uidsAreValidAndUnique)
{
    QRegularExpression const valid("^2\\.25\\.(0|[1-9][0-9]*)$");
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        std::string const uid = McCreateUIDs::createUID();
        EXPECT_TRUE(valid.match(QString::fromStdString(uid)).hasMatch()) << uid;
        EXPECT_LE(uid.size(), 64u);
        EXPECT_TRUE(seen.insert(uid).second);
    }
}

} // namespace
