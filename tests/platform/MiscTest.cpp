#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McSocket.h>
#include <mdxlib/platform/McStringTokenizer.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

namespace {

std::vector<std::string> tokens(char const* text)
{
    std::vector<std::string> result;
    McStringTokenizer tokenizer(text);
    while (tokenizer.hasMoreTokens()) {
        result.push_back(tokenizer.nextToken());
    }
    EXPECT_EQ(tokenizer.nextToken(), "");
    return result;
}

using Tokens = std::vector<std::string>;
using Paths = std::vector<char const*>;

} // namespace

TEST(StringTokenizerTest, SplitsOnBackslashAndWhiteSpace)
{
    EXPECT_EQ(tokens("1\\2"), (Tokens{"1", "2"}));
    EXPECT_EQ(tokens("  1.5 \\ -2 "), (Tokens{"1.5", "-2"}));
    EXPECT_EQ(tokens("a\\\\b\t\nc"), (Tokens{"a", "b", "c"}));
    EXPECT_EQ(tokens("single"), (Tokens{"single"}));
    EXPECT_EQ(tokens(""), Tokens{});
    EXPECT_EQ(tokens("\\\\"), Tokens{});
    EXPECT_EQ(tokens(nullptr), Tokens{});
}

TEST(McFilename, urlWadoAndContainerRules)
{
    for (char const* url : Paths{"http://h/x", "s3://b/k", "wrs://h/1/2/3", "a+b-c.d://x", "s3://"})
        EXPECT_TRUE(McFilename::isUrl(url)) << url;
    for (char const* path :
         Paths{"C:/data/x.dcm", "c://x", "/tmp/file", "", "http:/x", "ht tp://x", "://x", nullptr})
        EXPECT_FALSE(McFilename::isUrl(path)) << (path ? path : "null");
    for (char const* url : Paths{"wa://h/1/2/3", "was://h/1/2/3", "wr://h/1/2/3", "wrs://h/1/2/3"})
        EXPECT_TRUE(McFilename::isWado(url)) << url;
    for (char const* url : Paths{"wad://h/x", "http://h/wa://", "wa:/h/x", "", nullptr})
        EXPECT_FALSE(McFilename::isWado(url)) << (url ? url : "null");
    for (char const* path : Paths{"/data/study.kz/member.dcm", "s3://b/x.kz/y", "rel.kz/m"})
        EXPECT_TRUE(McFilename::isInContainer(path)) << path;
    for (char const* path :
         Paths{"/data/.kz/member", "/data/study.kz", "/data/study.kz.bak/m", ".kz/m", nullptr})
        EXPECT_FALSE(McFilename::isInContainer(path)) << (path ? path : "null");
}

TEST(McSocket, refusedAndAcceptedConnectionsAreAnsweredAtOnce)
{
    int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    int const open = ntohs(address.sin_port);
    // Port 9 (discard) is closed on loopback: refused at once, whatever the time-out.
    std::tuple<char const*, int, int> const cases[] = {
        {"127.0.0.1", 9, 50}, {"127.0.0.1", 9, 5000}, {"127.0.0.1", open, 50}, {"localhost", open, 50}};
    for (auto const& [host, port, timeout] : cases) {
        auto const t0 = std::chrono::steady_clock::now();
        int const socket = McSocket::connect(host, port, timeout, 0, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100)) << host << timeout;
        EXPECT_EQ(socket >= 0, port == open) << host << " " << port;
        if (port == open)
            ::close(::accept(listener, nullptr, nullptr));
        McSocket::close(socket); // a negative value is ignored
    }
    ::close(listener);
    EXPECT_LT(McSocket::connect(nullptr, open, 50), 0);
    EXPECT_LT(McSocket::connect("127.0.0.1", 0, 50), 0);
}
