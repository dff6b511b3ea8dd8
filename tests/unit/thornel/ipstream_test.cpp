#include <brantle/thornel/ipstream.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include <brantle/thornel/string_t.h>

namespace {

TEST(ipstream, ReadsTheOutputOfACommand) {
    ipstream in("printf 'one\\ntwo\\n'; exit 3");
    ASSERT_TRUE(in.good());
    String_t line;
    ASSERT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_STREQ(line.Text(), "one");
    ASSERT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_STREQ(line.Text(), "two");
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(in.eof());
    int status = in.close();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(ipstream, ReadsMoreThanABuffer) {
    ipstream in("head -c 100000 /dev/zero");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all, std::string(100000, '\0'));
}

TEST(ipstream, UnknownCommandGivesEndOfInput) {
    ipstream in("exec 2>/dev/null; /nonexistent/command");
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.peek(), std::char_traits<char>::eof());
    EXPECT_EQ(WEXITSTATUS(in.close()), 127);
}

TEST(ipstream, FailureToStartSetsTheState) {
    ipstream none(nullptr);
    EXPECT_TRUE(none.bad());
    EXPECT_EQ(none.close(), -1);
    // UndefinedBehaviorSanitizer needs descriptors where it meets a class the first time.
    {
        ipstream in("true");
    }
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    bool bad;
    {
        ipstream in("echo x");
        bad = in.bad();
    }
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(bad);
}

TEST(ipstream, CloseEndsReadingAndIsIdempotent) {
    ipstream in("yes");
    EXPECT_EQ(in.get(), 'y');
    int status = in.close();
    EXPECT_TRUE(WIFSIGNALED(status) || WIFEXITED(status));
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_EQ(in.close(), -1);
}

TEST(ipstream, DestructorReapsTheCommand) {
    {
        ipstream in("true");
    }
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

} // namespace
