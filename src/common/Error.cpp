// SPDX-License-Identifier: Apache-2.0
// Error and its builder. No thread of their own, no lock.
#include "common/Error.h"

#include <cstdarg>
#include <cstdio>
#include <optional>

#include "common/InternalError.h"

namespace Nimbrel2 {

struct Error::Details {
    std::string message;
    std::string file;
    int line = 0;
    std::string buildDate;
    std::string buildTime;
    std::optional<Error> cause;
};

namespace {

// What an error says that was raised without a message.
const char* TextOf(ErrorType type) {
    switch (type) {
        case ERROR_OK:
            return "success";
        case ERROR_FAILED:
            return "failed";
        case ERROR_NOT_IMPLEMENTED:
            return "not implemented";
        case ERROR_INIT_TIMED_OUT:
            return "not started in time";
        case ERROR_NOT_INITIALIZED:
            return "not initialized";
        case ERROR_INVALID_PARAMETER:
            return "invalid parameter";
        case ERROR_MEMORY_ALLOCATION_FAILED:
            return "out of memory";
        case ERROR_LOW_LEVEL_FAILURE:
            return "low-level failure";
        case ERROR_NOT_FOUND:
            return "not found";
        case ERROR_GUID_GENERATION_FAILED:
            return "no identifier could be made";
        case ERROR_UNSUPPORTED_INTERFACE:
            return "not supported on this bus";
        case ERROR_TIMEOUT:
            return "not acknowledged in time";
        case ERROR_REGISTER_FAILED:
            return "a register could not be read";
        case ERROR_BUFFER_TOO_SMALL:
            return "the array is too small";
    }
    return "unknown error";
}

std::string TextOrEmpty(const char* text) { return text != nullptr ? std::string(text) : std::string(); }

std::string Format(const char* format, std::va_list arguments) {
    std::va_list counting;
    va_copy(counting, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, counting);
    va_end(counting);
    if (length <= 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

}  // namespace

const char* Error::GetMessage() const noexcept { return m_details ? m_details->message.c_str() : ""; }

const char* Error::GetFile() const noexcept { return m_details ? m_details->file.c_str() : ""; }

int Error::GetLine() const noexcept { return m_details ? m_details->line : 0; }

const char* Error::GetBuildDate() const noexcept { return m_details ? m_details->buildDate.c_str() : ""; }

const char* Error::GetBuildTime() const noexcept { return m_details ? m_details->buildTime.c_str() : ""; }

const Error* Error::GetCause() const noexcept {
    return m_details && m_details->cause.has_value() ? &*m_details->cause : nullptr;
}

std::string Error::Describe() const {
    std::string text;
    for (const Error* error = this; error != nullptr; error = error->GetCause()) {
        if (error != this) {
            text += "\n  caused by: ";
        }
        text += error->m_details ? error->m_details->message : TextOf(error->m_type);
        if (error->m_type == ERROR_OK) {
            continue;
        }
        text += " (error " + std::to_string(static_cast<int>(error->m_type));
        if (error->m_details) {
            text += ", " + error->m_details->file + ":" + std::to_string(error->m_details->line) + ", built " +
                    error->m_details->buildDate + " " + error->m_details->buildTime;
        }
        text += ")";
    }
    return text;
}

InternalError::InternalError(ErrorType type) noexcept { m_error.m_type = type; }

InternalError::InternalError(int line, const char* file, const char* date, const char* time, ErrorType type,
                             const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string message = Format(format, arguments);
    va_end(arguments);
    m_error.m_type = type;
    m_error.m_details = std::make_shared<const Error::Details>(Error::Details{
        std::move(message), TextOrEmpty(file), line, TextOrEmpty(date), TextOrEmpty(time), std::nullopt});
}

InternalError::InternalError(int line, const char* file, const char* date, const char* time, ErrorType type,
                             const InternalError& cause, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string message = Format(format, arguments);
    va_end(arguments);
    m_error.m_type = type;
    m_error.m_details = std::make_shared<const Error::Details>(Error::Details{
        std::move(message), TextOrEmpty(file), line, TextOrEmpty(date), TextOrEmpty(time), cause.m_error});
}

InternalError::InternalError(const Error& error) noexcept : m_error(error) {}

InternalError::~InternalError() = default;

}  // namespace Nimbrel2
