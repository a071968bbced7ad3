#include "tools/Output.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <vector>

#include "tools/Signals.h"

namespace lyn {
namespace io {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return s;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

mode_t currentUmask() {
    // Read without changing it: umask() itself would set it, racing other threads' file creation.
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "Umask:") == 0) return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
    const mode_t m = ::umask(022);
    ::umask(m);
    return m;
}

// Moves `from` to `to` unless `to` exists. false with errno EEXIST when it does.
bool renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without the flag: a hard link cannot replace either.
    if (::link(from.c_str(), to.c_str()) != 0) return false;
    ::unlink(from.c_str());
    return true;
}

std::string randomTag() {
    static std::mt19937 rng(std::random_device{}());
    static const char digits[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::string s(6, 'x');
    for (char& c : s) c = digits[rng() % 36];
    return s;
}

} // namespace

bool formatOf(const std::string& path, Format& format) {
    const std::string l = lower(path);
    if (endsWith(l, ".npy")) format = Format::Npy;
    else if (endsWith(l, ".tif") || endsWith(l, ".tiff")) format = Format::Tiff;
    else return false;
    return true;
}

void throwWriteError(const std::string& path, int err) {
    throw std::runtime_error(path + ": cannot write: " + (err ? std::strerror(err) : "unknown error"));
}

OutputFile::OutputFile(std::string path, bool force) : m_path(std::move(path)), m_force(force) {
    if (!formatOf(m_path, m_format))
        throw OutputError(m_path + ": unsupported output format (use .npy, .tif or .tiff)");
    std::string base = m_path;
    m_dir = ".";
    if (auto slash = m_path.rfind('/'); slash != std::string::npos) {
        m_dir = slash == 0 ? "/" : m_path.substr(0, slash);
        base = m_path.substr(slash + 1);
    }
    struct stat st {};
    if (::stat(m_dir.c_str(), &st) != 0)
        throw OutputError(m_path + ": cannot write there: folder " + m_dir + ": " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) throw OutputError(m_path + ": cannot write there: " + m_dir + " is not a folder");
    if (::access(m_dir.c_str(), W_OK | X_OK) != 0)
        throw OutputError(m_path + ": cannot write there: folder " + m_dir + ": " + std::strerror(errno));
    const long nameMax = ::pathconf(m_dir.c_str(), _PC_NAME_MAX);
    if (nameMax > 0 && base.size() > static_cast<std::size_t>(nameMax))
        throw OutputError(m_path + ": file name too long (" + std::to_string(base.size()) + " bytes; at most " +
                          std::to_string(nameMax) + ")");
    if (::lstat(m_path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) throw OutputError(m_path + " is a folder");
        if (!m_force) throw OutputError(m_path + " exists (use --force to overwrite it)");
    }
}

OutputFile::~OutputFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_tmp.empty() && !m_committed) ::unlink(m_tmp.c_str());
}

int OutputFile::open() {
    // Short, so that any name the folder accepts for the output still leaves room for it.
    std::string name = m_dir + "/.lyn-XXXXXX";
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    m_fd = ::mkstemp(buf.data());
    if (m_fd < 0) throwWriteError(m_path, errno);
    m_tmp = buf.data();
    m_guard = std::make_unique<tool::TemporaryPath>(m_tmp);
    return m_fd;
}

void OutputFile::commit() {
    checkInterrupt();
    mode_t mode = 0666 & ~currentUmask();
    struct stat st {};
    if (m_force && ::stat(m_path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) mode = st.st_mode & 07777;
    int fd = m_fd >= 0 ? m_fd : ::open(m_tmp.c_str(), O_RDONLY);
    if (fd < 0 || ::fsync(fd) != 0 || ::fchmod(fd, mode) != 0) throwWriteError(m_path, errno);
    if (fd != m_fd) ::close(fd);
    if (m_fd >= 0 && ::close(m_fd) != 0) {
        m_fd = -1;
        throwWriteError(m_path, errno);
    }
    m_fd = -1;
    checkInterrupt();
    if (m_force) {
        if (::rename(m_tmp.c_str(), m_path.c_str()) != 0) throwWriteError(m_path, errno);
        m_committed = true;
        return;
    }
    if (renameNoReplace(m_tmp, m_path)) {
        m_committed = true;
        return;
    }
    if (errno != EEXIST) throwWriteError(m_path, errno);
    // Someone wrote OUTPUT while we computed: theirs stays, ours gets a visible name of its own.
    const std::string ext = m_format == Format::Npy ? ".npy" : ".tif";
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string kept = m_dir + "/lyn-result-" + randomTag() + ext;
        if (renameNoReplace(m_tmp, kept)) {
            m_committed = true;
            throw OutputError(m_path + " appeared while lyn was computing and was left alone (use --force to "
                              "overwrite it); the result is kept as " + kept);
        }
        if (errno != EEXIST) break;
    }
    throwWriteError(m_path, EEXIST);
}

} // namespace io
} // namespace lyn
