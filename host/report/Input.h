#pragma once

#include "common/infra/Defs.h"
#include "host/services/FileDescriptor.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

namespace report {

// An input could not be read to its end. The message names the input and the reason.
class InputError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Decompresses a stream of bytes.
class IDecoder {
public:
    IDecoder() = default;
    virtual ~IDecoder() = default;
    IDecoder(const IDecoder&) = delete;
    IDecoder& operator=(const IDecoder&) = delete;

    struct Step {
        std::size_t taken = 0; // of `from`
        std::size_t made = 0;  // in `to`
    };
    // Throws InputError for damaged data.
    virtual Step decode(const char* from, std::size_t fromSize, char* to, std::size_t toSize) = 0;
    // Whether the data may end here.
    virtual bool isComplete() const = 0;
};

// The bytes of a file or of standard input, decompressed if the first ones are those of gzip or
// zstd.
class Input {
public:
    static constexpr const char* standard = "-"; // the path of standard input

    // Throws InputError if the file cannot be opened, without opening it.
    static void check(const std::string& path);

    // Throws InputError if the file cannot be opened.
    explicit Input(const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // Waits for bytes. Returns 0 at the end. Throws InputError, also for damaged data.
    std::size_t read(char* to, std::size_t size);

    const std::string& name() const { return m_name; }
    u64 position() const { return m_position; } // how much of the file was read, as it is stored
    u64 size() const { return m_size; }         // 0: not known

private:
    std::size_t readRaw(char* to, std::size_t size);
    void recognize();
    std::size_t readPlain(char* to, std::size_t size);
    std::size_t readDecoded(char* to, std::size_t size);

    const std::string m_name;
    FileDescriptor m_owned;
    int m_descriptor;
    u64 m_position = 0;
    u64 m_size = 0;
    bool m_isRecognized = false;
    std::unique_ptr<IDecoder> m_decoder;
    std::string m_raw; // read, not yet passed on
};

} // namespace report
