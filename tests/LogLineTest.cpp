#include "common/Analytics/LogLine.h"

#include "host/testing/LogText.h"
#include "tests/support/Test.h"

// What a condition names is written, not what it stands for.
#define EXPANDED 0

struct LogLineSpeaker {
    static unsigned* speak(const std::string& evaluated, const int* size) {
        LOG_LINE(LogModuleCommon, InfoLevel) << " size=" << *size << " " << std::endl;
        EXPECT_OR_REPORT(size == nullptr) << " size=" << *size << " evaluated=" << evaluated;
        return nullptr;
    }
};

namespace {

// An assertion stands in an if without braces, takes a comma, and evaluates details on failure.
TEST(LogLine, NamesItsPlace) {
    EXPECT_EQ(fileBaseName("b.cpp") + std::string(fileBaseName("/a/c/d.cpp")), "b.cppd.cpp");
    RecordingLog log;
    int size = 7;
    std::string evaluated;
    const auto yes = [&](char piece) { return evaluated += piece, true; };
    for (const bool reached : {true, false}) {
        if (reached)
            EXPECT_OR_REPORT(!yes('a') && EXPANDED) << "if" << yes('b');
        else
            EXPECT_OR_REPORT(std::is_same_v<int, long> || yes('c')) << "else" << yes('d');
    }
    EXPECT_EQ(log.lines().at(0).text, " LogLineTest.cpp " + std::to_string(__LINE__ - 4) +
                                          ": !yes('a') && EXPANDED failed. if1\n");
    log.clear();
    LogLineSpeaker::speak(evaluated, &size);
    const std::string speak =
        "static unsigned int*LogLineSpeaker::speak(const std::string&, const int*)";
    EXPECT_EQ(toText(log), "common info [" + speak + "] 3:  size=7 \nkel assert [" + speak +
                               "] 3:  LogLineTest.cpp N: size == nullptr failed.  size=7 "
                               "evaluated=abc\n");
}

} // namespace
