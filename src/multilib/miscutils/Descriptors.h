#pragma once

// Descriptors that one object owns and closes once, and the pipe that wakes a thread out of its
// poll. The stream ends and the network clock hold their descriptors in these.

#include <utility>

namespace miscUtils {

/// Owns one descriptor and closes it once, on reset or destruction; moving hands it on. It
/// reads as the descriptor's number (-1 when it holds none), so that it goes straight into
/// system calls.
class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) noexcept : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    ~FileDescriptor() { reset(); }

    // A copy would close the descriptor twice.
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    operator int() const noexcept { return m_fd; }

    /// Closes the descriptor held, if any, and takes `fd` instead.
    void reset(int fd = -1) noexcept;

private:
    int m_fd = -1;
};

/// Wakes a thread out of its poll: any thread calls notify(), the thread that waits polls
/// readFD() for input and drains what came. Both ends are non-blocking, so that notifying never
/// waits (a full pipe means that a wake-up is pending already) and draining an empty pipe is no
/// error. Opening and closing are the owner's to order against notify() from other threads.
class WakeupPipe
{
public:
    /// Creates the pipe, close-on-exec; false (errno set) when it cannot. A pipe still open is
    /// closed first.
    bool open() noexcept;
    void close() noexcept;
    bool isOpen() const noexcept { return m_readEnd >= 0; }
    /// Polled for input by the thread that waits; -1 while closed.
    int readFD() const noexcept { return m_readEnd; }
    /// Writes the wake-up byte "1"; false (errno set) when that fails other than on a full pipe.
    bool notify() const noexcept;
    /// Reads what is pending, up to 1024 bytes at once; false (errno set) when the read fails.
    bool drain() const noexcept;

private:
    FileDescriptor m_readEnd;
    FileDescriptor m_writeEnd;
};

} // namespace miscUtils
