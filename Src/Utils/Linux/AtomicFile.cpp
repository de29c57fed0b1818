#include "Src/Utils/Linux/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace vok {

namespace {

bool Fail(const std::string& what, const std::string& path, int err, std::string* error) {
    if (error != nullptr) {
        *error = "cannot " + what + " " + path + ": " + std::strerror(err);
    }
    return false;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const std::string& content, std::string* error) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty()) {
        return Fail("write", path, EISDIR, error);
    }
    // Two threads of one process replacing the same file each need their own temporary.
    static std::atomic<unsigned> sequence(0);
    const std::string temp = (slash == std::string::npos ? std::string() : dir) + "." + name + "." +
                             std::to_string(static_cast<long>(getpid())) + "." +
                             std::to_string(sequence.fetch_add(1)) + ".tmp";
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return Fail("create", temp, errno, error);
    }
    if (!WriteAll(fd, content.data(), content.size()) || fsync(fd) != 0) {
        const int err = errno;
        close(fd);
        unlink(temp.c_str());
        return Fail("write", temp, err, error);
    }
    if (close(fd) != 0) {
        const int err = errno;
        unlink(temp.c_str());
        return Fail("write", temp, err, error);
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        const int err = errno;
        unlink(temp.c_str());
        return Fail("rename " + temp + " to", path, err, error);
    }
    // The rename itself reaches the disk with the directory.
    const int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        fsync(dirFd);
        close(dirFd);
    }
    return true;
}

}  // namespace vok
