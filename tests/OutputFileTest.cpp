#include "host/forwarding/OutputFile.h"

#include "host/services/FileDescriptor.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Files.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Standard output goes to this descriptor while the action runs. Returns what the action throws.
std::string withStandardOutput(int descriptor, const std::function<void()>& action) {
    const FileDescriptor before(dup(STDOUT_FILENO));
    dup2(descriptor, STDOUT_FILENO);
    close(descriptor);
    std::string message = messageOf(action);
    dup2(before.get(), STDOUT_FILENO);
    return message;
}

class OutputFileTest : public testing::Test {
protected:
    const RecordingLog log;
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
    for (const auto& [name, shown] : {std::pair(path, "'" + path + "'"), {"", "standard output"}}) {
        folder.write("output", "");
        std::string error;
        withStandardOutput(open(path.c_str(), O_WRONLY), [&, name = name] {
            OutputFile output(name);
            output.write("first\n");
            error = messageOf([&] {
                const FileSizeLimit limit(10);
                output.write("second\n");
            });
            output.write("third\n");
        });
        EXPECT_EQ(error, "cannot write to " + shown + ": File too large");
        EXPECT_EQ(folder.read("output"), "first\nthird\n");
    }
}

TEST_F(OutputFileTest, IsOpenedAnewOnRequestAlone) {
    OutputFile output(path);
    for (const char* moved : {"first", "second"}) {
        output.write("1\n");
        std::filesystem::rename(path, folder / moved);
        output.write("2\n");
        EXPECT_EQ(folder.read(moved), "1\n2\n");
        output.requestReopen();
    }
}

TEST_F(OutputFileTest, AFifoIsWrittenWhileSomebodyReadsIt) {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    const std::string nobody = "cannot open '" + path +
                               "': nobody reads it (expected a file that "
                               "can be appended to, see --output)";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(messageOf([&] { OutputFile output(path); }), nobody);
    FileDescriptor reader(open(path.c_str(), O_RDONLY | O_NONBLOCK));
    OutputFile output(path);
    EXPECT_EQ(messageOf([&] { output.write("1\n"); }), "no error");
    reader = FileDescriptor(); // it goes away
    output.requestReopen();
    EXPECT_EQ(messageOf([&] { output.write("2\n"); }),
              "cannot write to '" + path + "': Broken pipe");
    EXPECT_EQ(log.texts(ErrorLevel),
              std::vector<std::string>{nobody + "; the file that was open stays in use\n"});
}

TEST_F(OutputFileTest, AFullPipeThatDoesNotBlockIsWaitedFor) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    std::ifstream reader("/proc/self/fd/" + std::to_string(ends[0])); // which blocks
    close(ends[0]);
    auto got = std::async(std::launch::async,
                          [&] { return std::string(std::istreambuf_iterator<char>(reader), {}); });
    const std::string text(1U << 20U, 'x');
    EXPECT_EQ(withStandardOutput(ends[1], [&] { OutputFile("").write(text); }), "no error");
    EXPECT_EQ(got.get(), text);
}

} // namespace
