#include "zoreport.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "zoundisturbed.h"

namespace {

bool WriteWhole(int descriptor, char const* text, std::size_t length) {
    while (length > 0) {
        ssize_t const written = write(descriptor, text, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        text += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

// Copies `length` characters to `to`, line breaks spelled out; returns the end of the copy. The two
// may overlap as long as the copy, up to twice as long, does not overtake what is still to be read.
char* CopyAsOneLine(char* to, char const* from, std::size_t length) {
    for (char const* const end = from + length; from != end; ++from) {
        if (*from != '\n' && *from != '\r') {
            *to++ = *from;
            continue;
        }
        char const name = *from == '\n' ? 'n' : 'r';
        *to++ = '\\';
        *to++ = name;
    }
    return to;
}

__attribute__((format(printf, 4, 0))) void Write(int descriptor, char const* prefix,
                                                 ReportForm form, char const* format,
                                                 va_list args) {
    va_list measured;
    va_copy(measured, args);
    int const needed = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    bool const formats = needed >= 0;  // else the format itself is the best we have
    std::size_t length = formats ? static_cast<std::size_t>(needed) : std::strlen(format);

    // Room for the prefix, the text with every character spelled out, its end and a newline. The
    // text is formatted into the upper half and copied down.
    std::size_t const prefixLength = std::strlen(prefix);
    char local[1024];
    char* buffer = local;
    std::unique_ptr<char[]> heap;
    if (std::size_t const size = prefixLength + 2 * length + 2; size > sizeof local) {
        heap.reset(new (std::nothrow) char[size]);
        if (heap != nullptr) {
            buffer = heap.get();
        } else {
            length = (sizeof local - prefixLength - 2) / 2;
        }
    }
    std::memcpy(buffer, prefix, prefixLength);
    char* end = buffer + prefixLength;
    char* const text = end + length;
    if (formats) {
        std::vsnprintf(text, length + 1, format, args);
    } else {
        std::memcpy(text, format, length);
    }
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
    end = form == ReportForm::OneLine ? CopyAsOneLine(end, text, length)
                                      : std::copy(text, text + length, end);
    *end++ = '\n';

    std::size_t const total = static_cast<std::size_t>(end - buffer);
    if (!WriteWhole(descriptor, buffer, total) && descriptor != STDERR_FILENO) {
        WriteWhole(STDERR_FILENO, buffer, total);
    }
}

}  // namespace

void WriteReport(int descriptor, char const* prefix, ReportForm form, char const* format,
                 va_list args) {
    Undisturbed const undisturbed;
    Write(descriptor, prefix, form, format, args);
}

void ReportToStandardError(char const* format, ...) {
    va_list args;
    va_start(args, format);
    WriteReport(STDERR_FILENO, "", ReportForm::AsIs, format, args);
    va_end(args);
}
