#pragma once
// Output files: everything that can be checked is checked before any work; the data goes to a
// short hidden name beside the output and is published whole, never over a file that appeared in
// the meantime unless --force allows it.
#include <stdexcept>
#include <string>

#include <memory>

namespace lyn {
namespace tool {
class TemporaryPath;
}
namespace io {

// An output that cannot be written, found before or after the work; exit status 2.
class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Format { Npy, Tiff };
// By extension, in any letter case: .npy, .tif, .tiff; false for anything else.
bool formatOf(const std::string& path, Format& format);

class OutputFile {
public:
    // Checks the name, its folder (present, a folder, writable), and an existing file at `path`
    // (refused without `force`).
    OutputFile(std::string path, bool force);
    ~OutputFile();  // removes the temporary file unless committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& path() const { return m_path; }
    Format format() const { return m_format; }

    // Creates the temporary file and returns its descriptor (owned here; a writer that closes it
    // itself says so with released()).
    int open();
    void released() { m_fd = -1; }
    const std::string& temporaryName() const { return m_tmp; }

    // Flushes to disk, gives the file its mode (the umask's for a new file, the replaced file's
    // with --force) and moves it to `path`. Without --force, a file that appeared at `path` since
    // the check is left alone: the result is kept under a new name and OutputError says which.
    void commit();

private:
    std::string m_path, m_dir, m_tmp;
    Format m_format = Format::Npy;
    bool m_force;
    int m_fd = -1;
    bool m_committed = false;
    std::unique_ptr<tool::TemporaryPath> m_guard;  // the record a second signal removes it by
};

// "No space left on device" and friends, naming the file.
[[noreturn]] void throwWriteError(const std::string& path, int err);

} // namespace io
} // namespace lyn
