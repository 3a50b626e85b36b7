#include "common/Analytics/LogLine.h"

#include "host/testing/LogText.h"

#include <gtest/gtest.h>

#include <type_traits>

// What a condition names is written, not what it stands for.
#define EXPANDED 0

struct LogLineSpeaker {
    // NOLINTNEXTLINE(readability-non-const-parameter): a signature to be named
    static unsigned* speak(const std::string& /*name*/, int* size) {
        LOG_LINE(LogModuleCommon, InfoLevel) << " size=" << *size << " " << std::endl;
        EXPECT_OR_REPORT(size == nullptr) << " size=" << *size << " ";
        return nullptr;
    }
};

namespace {

TEST(LogLine, NamesModuleLevelFunctionAndDetail) {
    RecordingLog log;
    int size = 7;
    LogLineSpeaker::speak("", &size);
    const std::string speak = "static unsigned int*LogLineSpeaker::speak(const std::string&, int*)";
    EXPECT_EQ(toText(log), "common info [" + speak + "] 3:  size=7 \n" +
                               failedIn("LogLineTest", speak, "size == nullptr", " size=7 "));
}

TEST(LogLine, AnAssertionStandsAnywhereAndEvaluatesItsDetailsOnlyOnFailure) {
    RecordingLog log;
    std::string evaluated;
    const auto yes = [&](char piece) { return evaluated += piece, true; };
    for (const bool reached : {true, false}) {
        if (reached)
            EXPECT_OR_REPORT(!yes('a') && EXPANDED) << "if" << yes('b');
        else
            EXPECT_OR_REPORT(std::is_same_v<int, long> || yes('c')) << "else" << yes('d');
    }
    const std::string line = std::to_string(__LINE__ - 4);
    EXPECT_EQ(evaluated, "abc");
    EXPECT_EQ(log.texts(AssertLevel),
              std::vector<std::string>{" LogLineTest.cpp " + line +
                                       ": !yes('a') && EXPANDED failed. if1\n"});
}

} // namespace
