#include "host/forwarding/OutputFile.h"

#include "tests/support/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

namespace {

class OutputFileTest : public testing::Test {
protected:
    const TempFolder folder;
    const std::string path = folder / "output";
};

TEST_F(OutputFileTest, ALineThatAKilledProcessLeftIsEnded) {
    for (const auto& [before, after] :
         {std::pair("", "new\n"), {"whole\n", "whole\nnew\n"}, {"whole\nto", "whole\nto\nnew\n"}}) {
        folder.write("output", before);
        OutputFile(path).write("new\n");
        EXPECT_EQ(folder.read("output"), after);
    }
}

TEST_F(OutputFileTest, APartOfALineIsTakenBack) {
    folder.write("output", "first\n");
    OutputFile output(path);
    {
        const FileSizeLimit limit(10);
        EXPECT_EQ(messageOf([&] { output.write("second\n"); }),
                  "cannot write to '" + path + "': File too large");
    }
    EXPECT_EQ(folder.read("output"), "first\n");
    output.write("third\n");
    EXPECT_EQ(folder.read("output"), "first\nthird\n");
}

TEST_F(OutputFileTest, IsOpenedAnewOnRequestAlone) {
    OutputFile output(path);
    output.write("1\n");
    std::filesystem::rename(path, folder / "moved");
    output.write("2\n");
    output.requestReopen();
    output.write("3\n");
    EXPECT_EQ(folder.read("moved") + folder.read("output"), "1\n2\n3\n");
    EXPECT_EQ(folder.read("output"), "3\n");
}

TEST_F(OutputFileTest, AFullPipeThatDoesNotBlockIsWaitedFor) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, 0), 0);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    std::string got;
    std::thread reader([&] {
        char piece[4096];
        for (ssize_t length = 0; (length = read(ends[0], piece, sizeof piece)) > 0;) {
            got.append(piece, static_cast<std::size_t>(length));
        }
    });
    const std::string text(1U << 20U, 'x');
    EXPECT_NO_THROW(OutputFile("").write(text));
    dup2(before, STDOUT_FILENO); // the pipe's end
    close(before);
    reader.join();
    EXPECT_EQ(got, text);
    close(ends[0]);
}

} // namespace
