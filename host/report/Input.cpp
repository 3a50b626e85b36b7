#include "host/report/Input.h"

#include "host/services/Text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace report {

namespace {

constexpr std::string_view gzipMagic = "\x1f\x8b";
constexpr std::string_view zstdMagic = "\x28\xb5\x2f\xfd";

bool startsWith(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

// Members of gzip, one behind the other.
class GzipDecoder : public IDecoder {
public:
    GzipDecoder() {
        constexpr int gzipOnly = 16;
        if (inflateInit2(&m_stream, MAX_WBITS + gzipOnly) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~GzipDecoder() override { inflateEnd(&m_stream); }

    Step decode(const char* from, std::size_t fromSize, char* to, std::size_t toSize) override {
        if (m_isComplete) {
            inflateReset(&m_stream);
        }
        // zlib's interface lacks the const; it does not write there.
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(from));
        m_stream.avail_in = static_cast<uInt>(fromSize);
        m_stream.next_out = reinterpret_cast<Bytef*>(to);
        m_stream.avail_out = static_cast<uInt>(toSize);
        const int result = inflate(&m_stream, Z_NO_FLUSH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            throw InputError("the gzip data is damaged");
        }
        m_isComplete = result == Z_STREAM_END;
        return {fromSize - m_stream.avail_in, toSize - m_stream.avail_out};
    }
    bool isComplete() const override { return m_isComplete; }

private:
    z_stream m_stream{};
    bool m_isComplete = false;
};

// Frames of zstd, one behind the other.
class ZstdDecoder : public IDecoder {
public:
    ZstdDecoder() : m_stream(ZSTD_createDStream()) {
        if (m_stream == nullptr) {
            throw std::bad_alloc();
        }
    }
    ~ZstdDecoder() override { ZSTD_freeDStream(m_stream); }

    Step decode(const char* from, std::size_t fromSize, char* to, std::size_t toSize) override {
        ZSTD_inBuffer in{from, fromSize, 0};
        ZSTD_outBuffer out{to, toSize, 0};
        const std::size_t result = ZSTD_decompressStream(m_stream, &out, &in);
        if (ZSTD_isError(result) != 0) {
            throw InputError("the zstd data is damaged");
        }
        m_isComplete = result == 0;
        return {in.pos, out.pos};
    }
    bool isComplete() const override { return m_isComplete; }

private:
    ZSTD_DStream* const m_stream;
    bool m_isComplete = false;
};

constexpr const char* expected = " (expected a file of JSON lines, plain, gzip or zstd)";

std::string nameOf(const std::string& path) {
    return path == Input::standard ? "standard input" : escaped(path);
}

[[noreturn]] void failOpening(const std::string& path, int error) {
    throw InputError("cannot open " + nameOf(path) + ": " + std::generic_category().message(error) +
                     expected);
}

int openFile(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        failOpening(path, errno);
    }
    return descriptor;
}

} // namespace

void Input::check(const std::string& path) {
    struct stat status {};
    if (path == standard) {
        return;
    }
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
        failOpening(path, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        failOpening(path, EISDIR);
    }
}

Input::Input(const std::string& path)
    : m_name(nameOf(path)),
      m_owned(path == standard ? -1 : openFile(path)),
      m_descriptor(path == standard ? STDIN_FILENO : m_owned.get()) {
    struct stat status {};
    if (fstat(m_descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        failOpening(path, EISDIR);
    }
    m_size = S_ISREG(status.st_mode) ? static_cast<u64>(status.st_size) : 0;
}

Input::~Input() = default;

std::size_t Input::read(char* to, std::size_t size) {
    try {
        if (!m_isRecognized) {
            recognize();
        }
        return m_decoder == nullptr ? readPlain(to, size) : readDecoded(to, size);
    } catch (const InputError& error) {
        throw InputError(m_name + ", byte " + std::to_string(m_position - m_raw.size()) + ": " +
                         error.what() + "; what stands before counts");
    }
}

std::size_t Input::readRaw(char* to, std::size_t size) {
    ssize_t count = 0;
    do {
        count = ::read(m_descriptor, to, size);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        m_raw.clear(); // may be room for these bytes
        throw InputError(std::generic_category().message(errno));
    }
    m_position += static_cast<u64>(count);
    return static_cast<std::size_t>(count);
}

void Input::recognize() {
    std::array<char, zstdMagic.size()> bytes{};
    std::size_t count = 0;
    do {
        count = readRaw(bytes.data(), bytes.size() - m_raw.size());
        m_raw.append(bytes.data(), count);
    } while (count > 0 && m_raw.size() < bytes.size() && m_raw[0] != '{' && m_raw[0] != '\n');
    m_isRecognized = !m_raw.empty();
    if (startsWith(m_raw, gzipMagic)) {
        m_decoder = std::make_unique<GzipDecoder>();
    } else if (startsWith(m_raw, zstdMagic)) {
        m_decoder = std::make_unique<ZstdDecoder>();
    }
}

std::size_t Input::readPlain(char* to, std::size_t size) {
    if (!m_raw.empty()) {
        const std::size_t count = m_raw.copy(to, size);
        m_raw.erase(0, count);
        return count;
    }
    return m_isRecognized ? readRaw(to, size) : 0;
}

std::size_t Input::readDecoded(char* to, std::size_t size) {
    constexpr std::size_t chunk = std::size_t{128} << 10U;
    for (;;) {
        if (m_raw.empty()) {
            m_raw.resize(chunk);
            m_raw.resize(readRaw(m_raw.data(), chunk));
        }
        const bool isEnd = m_raw.empty();
        if (isEnd && m_decoder->isComplete()) {
            return 0;
        }
        const IDecoder::Step step = m_decoder->decode(m_raw.data(), m_raw.size(), to, size);
        m_raw.erase(0, step.taken);
        if (step.made > 0) {
            return step.made;
        }
        if (isEnd) {
            throw InputError("the compressed data ends too early");
        }
    }
}

} // namespace report
