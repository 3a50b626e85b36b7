#include "common/Analytics/LogLine.h"

#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

struct LogLineSpeaker {
    static unsigned* speak(const std::string& /*name*/, int* size) {
        LOG_LINE(LogModuleCommon, InfoLevel) << " size=" << *size << " " << std::endl;
        EXPECT_OR_REPORT(size == nullptr) << " size=" << *size << " ";
        return nullptr;
    }
};

namespace {

using Texts = std::vector<std::string>;

class LogLineTest : public testing::Test {
protected:
    RecordingLog log;
    int evaluations = 0;

    int evaluated(int value) {
        ++evaluations;
        return value;
    }
    static std::string failed(int line, const std::string& condition) {
        return " LogLineTest.cpp " + std::to_string(line) + ": " + condition + " failed. ";
    }
    // What was written since the last time.
    Texts written() {
        const Texts texts = log.texts(AssertLevel);
        log.clear();
        return texts;
    }
};

TEST_F(LogLineTest, NamesModuleLevelFunctionAndDetail) {
    int size = 7;
    LogLineSpeaker::speak("", &size);
    const std::string where =
        " [static unsigned int*LogLineSpeaker::speak(const std::string&, int*)] 3: ";
    EXPECT_EQ(toTexts(log), (Texts{"common info" + where + " size=7 \n",
                                   "kel assert" + where +
                                       " LogLineTest.cpp N: size == nullptr failed.  size=7 \n"}));
}

TEST_F(LogLineTest, EvaluatesTheConditionOnceAndTheDetailsOnlyOnFailure) {
    EXPECT_OR_REPORT(evaluated(1) == 1) << evaluated(2);
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(written(), Texts{});

    const int line = __LINE__ + 1;
    EXPECT_OR_REPORT(evaluated(1) == 2) << evaluated(3);
    EXPECT_EQ(evaluations, 3);
    EXPECT_EQ(written(), Texts{failed(line, "evaluated(1) == 2") + "3\n"});
}

TEST_F(LogLineTest, KeepsTheConditionAsItIsWritten) {
    const int line = __LINE__ + 1;
    EXPECT_OR_REPORT(std::is_same_v<int, long> && EXIT_FAILURE) << "details";
    EXPECT_EQ(written(),
              Texts{failed(line, "std::is_same_v<int, long> && EXIT_FAILURE") + "details\n"});
}

TEST_F(LogLineTest, StandsInAnUnbracedIf) {
    for (const bool reached : {true, false}) {
        if (reached)
            EXPECT_OR_REPORT(!reached) << "if";
        else
            EXPECT_OR_REPORT(reached) << "else";
        const int line = __LINE__ - (reached ? 3 : 1);
        EXPECT_EQ(written(), Texts{reached ? failed(line, "!reached") + "if\n"
                                           : failed(line, "reached") + "else\n"});
    }
}

} // namespace
