// SPDX-License-Identifier: Apache-2.0
// Reads attributes of sysfs. Any thread; no lock. Calls of the C library only, which a mocked /sys redirects.
#include "platform/base/Sysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <memory>

namespace Nimbrel2::Platform {

namespace {

// Attributes are a page at most; descriptors of USB devices are the largest binary ones.
constexpr std::size_t MostBytes = std::size_t{1} << 20;

std::string PathBelowRoot(std::string_view path) {
    std::string whole = SysfsRoot;
    if (path.empty() || path.front() != '/') {
        whole += '/';
    }
    return whole.append(path);
}

template <class Container>
int ReadAttribute(int directory, const char* name, Container* content) {
    content->clear();
    const FileDescriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return errno;
    }
    std::array<char, 4096> buffer;
    while (content->size() < MostBytes) {
        const ssize_t size = ::read(file.Get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            return errno;
        }
        if (size == 0) {
            return 0;
        }
        content->insert(content->end(), buffer.data(), buffer.data() + size);
    }
    return EFBIG;
}

// Empty when it is no link.
std::string ReadLink(int directory, const char* name) {
    std::array<char, PATH_MAX> target;
    const ssize_t size = ::readlinkat(directory, name, target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

}  // namespace

int SysfsDirectory::Open(std::string_view path) {
    m_directory = FileDescriptor(::open(PathBelowRoot(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return m_directory.IsOpen() ? 0 : errno;
}

int SysfsDirectory::Open(const SysfsDirectory& parent, const std::string& name) {
    m_directory = FileDescriptor(::openat(parent.m_directory.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return m_directory.IsOpen() ? 0 : errno;
}

std::uint64_t SysfsDirectory::GetInode() const {
    struct stat status {};
    return ::fstat(m_directory.Get(), &status) == 0 ? status.st_ino : 0;
}

int SysfsDirectory::ReadText(const char* name, std::string* text) const {
    const int error = ReadAttribute(m_directory.Get(), name, text);
    if (error == 0 && !text->empty() && text->back() == '\n') {
        text->pop_back();
    }
    return error;
}

int SysfsDirectory::ReadBytes(const char* name, std::vector<std::uint8_t>* bytes) const {
    return ReadAttribute(m_directory.Get(), name, bytes);
}

std::optional<std::uint32_t> SysfsDirectory::ReadNumber(const char* name, int base) const {
    std::string text;
    if (ReadText(name, &text) != 0) {
        return std::nullopt;
    }
    return ParseNumber(text, base);
}

std::string SysfsDirectory::ReadLinkPath(const char* name) const {
    std::string target = ReadLink(m_directory.Get(), name);
    constexpr std::string_view Up = "../";
    std::size_t start = 0;
    while (target.compare(start, Up.size(), Up) == 0) {
        start += Up.size();
    }
    if (!target.empty()) {
        target.replace(0, start, 1, '/');
    }
    return target;
}

std::string SysfsDirectory::ReadLinkName(const char* name) const {
    const std::string target = ReadLink(m_directory.Get(), name);
    return target.substr(target.rfind('/') + 1);
}

bool SysfsDirectory::Has(const char* name) const {
    struct stat status {};
    return ::fstatat(m_directory.Get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

int SysfsDirectory::List(std::vector<std::string>* names) const {
    names->clear();
    FileDescriptor again(::openat(m_directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!again.IsOpen()) {
        return errno;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(again.Get()), ::closedir);
    if (!stream) {
        return errno;
    }
    again.Release();
    while (true) {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is our own
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr) {
            return errno;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names->emplace_back(name);
        }
    }
}

std::optional<std::uint32_t> ParseNumber(std::string_view text, int base) {
    constexpr std::string_view Blanks = " \t\n";
    const std::size_t first = text.find_first_not_of(Blanks);
    if (first == std::string_view::npos) {
        return std::nullopt;
    }
    text = text.substr(first, text.find_last_not_of(Blanks) - first + 1);
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace Nimbrel2::Platform
