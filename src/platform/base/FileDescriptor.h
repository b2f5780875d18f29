// SPDX-License-Identifier: Apache-2.0
// Owns one file descriptor and closes it. No lock; as thread-safe as an int.
#ifndef NIMBREL2_PLATFORM_BASE_FILEDESCRIPTOR_H
#define NIMBREL2_PLATFORM_BASE_FILEDESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace Nimbrel2::Platform {

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    ~FileDescriptor() { Close(); }

    bool IsOpen() const { return m_fd >= 0; }
    int Get() const { return m_fd; }
    /// Leaves it open, to whoever takes it.
    int Release() { return std::exchange(m_fd, -1); }
    void Close() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

}  // namespace Nimbrel2::Platform

#endif
