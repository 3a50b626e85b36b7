#include "host/forwarding/OutputFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

class OutputFileTest : public testing::Test {
protected:
    static std::string read(const std::string& file) {
        std::ifstream stream(file);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    void TearDown() override {
        std::filesystem::remove(path);
        std::filesystem::remove(moved);
    }

    const std::string path = testing::TempDir() + "output." + std::to_string(getpid());
    const std::string moved = path + ".1";
};

TEST_F(OutputFileTest, ALineThatAKilledProcessLeftIsEnded) {
    for (const auto& [before, after] :
         {std::pair("", "new\n"), {"whole\n", "whole\nnew\n"}, {"whole\nto", "whole\nto\nnew\n"}}) {
        std::ofstream(path) << before;
        OutputFile(path).write("new\n");
        EXPECT_EQ(read(path), after);
    }
}

TEST_F(OutputFileTest, APartOfALineIsTakenBack) {
    std::ofstream(path) << "first\n";
    OutputFile output(path);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{10, before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_THROW(output.write("second\n"), std::runtime_error);
    setrlimit(RLIMIT_FSIZE, &before);
    static_cast<void>(std::signal(SIGXFSZ, handler));
    EXPECT_EQ(read(path), "first\n");
    output.write("third\n");
    EXPECT_EQ(read(path), "first\nthird\n");
}

TEST_F(OutputFileTest, IsOpenedAnewOnRequestAlone) {
    OutputFile output(path);
    output.write("1\n");
    std::filesystem::rename(path, moved);
    output.write("2\n");
    output.requestReopen();
    output.write("3\n");
    EXPECT_EQ(read(moved), "1\n2\n");
    EXPECT_EQ(read(path), "3\n");
}

TEST_F(OutputFileTest, AFullPipeThatDoesNotBlockIsWaitedFor) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    const std::string text(1U << 20U, 'x');
    std::string got;
    std::thread reader([&] {
        char piece[4096];
        for (ssize_t length = 1; got.size() < text.size() && length > 0;) {
            length = ::read(ends[0], piece, sizeof piece);
            got.append(piece, static_cast<std::size_t>(length));
        }
    });
    EXPECT_NO_THROW(OutputFile("").write(text));
    dup2(before, STDOUT_FILENO);
    close(before);
    reader.join();
    EXPECT_EQ(got, text);
    close(ends[0]);
}

} // namespace
