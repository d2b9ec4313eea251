#pragma once

namespace vantor::common
{

// Owns one file descriptor and closes it exactly once: on destruction, on
// Reset, or through Close, which answers what close(2) said (write errors
// may surface only there). Move-only; a moved-from object owns nothing.
//
// Not thread-safe: an owner that shares the descriptor between threads
// guards it with its own lock.
class UniqueFd
{
public:
    UniqueFd() noexcept = default;
    // Takes fd; a negative value means nothing is owned.
    explicit UniqueFd(int fd) noexcept;
    ~UniqueFd();

    UniqueFd(UniqueFd&& other) noexcept;
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    // The descriptor, or -1.
    int Get() const noexcept { return m_fd; }
    bool Valid() const noexcept { return m_fd >= 0; }
    explicit operator bool() const noexcept { return Valid(); }

    // Gives the descriptor up without closing it; the caller owns it then.
    int Release() noexcept;
    // Closes the owned descriptor (its result is lost) and takes fd.
    void Reset(int fd = -1) noexcept;
    // Closes now; answers 0, or the errno of a failing close. The descriptor
    // is gone either way (Linux never leaves it open, even after EINTR).
    int Close() noexcept;

private:
    int m_fd = -1;
};

} // namespace vantor::common
