#include "common/PlatformShims.h"

#include <sys/time.h>

#include <algorithm>
#include <boost/thread/thread.hpp>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kConversionFailed = static_cast<size_t>(-1);
constexpr size_t kPathSize = 4096;

int CloseIfOpen(FILE* file) {
    if (file == nullptr)
        return 0;
    std::fclose(file);
    return 1;
}

}  // namespace

unsigned int GetTickCount() {
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<unsigned int>(now.tv_sec) * 1000u +
           static_cast<unsigned int>(now.tv_usec) / 1000u;
}

FILE* _wfopen(const wchar_t* path, const wchar_t* mode) {
    // The last byte stays zero, whatever the conversions do.
    char narrowPath[kPathSize] = {};
    char narrowMode[kPathSize] = {};
    std::wcstombs(narrowPath, path, kPathSize - 1);
    std::wcstombs(narrowMode, mode, kPathSize - 1);
    return std::fopen(narrowPath, narrowMode);
}

int file_exists(const wchar_t* path) {
    return CloseIfOpen(_wfopen(path, L"rb"));
}

int file_existsA(const char* path) {
    return CloseIfOpen(std::fopen(path, "rb"));
}

_bstr_t::_bstr_t(const char* text) : m_byWide(0) {
    const size_t length = strnlen(text, kNarrowSize - 1);
    std::memcpy(m_szNarrow, text, length);
    m_szNarrow[length] = '\0';
}

_bstr_t::_bstr_t(const wchar_t* text) : m_byWide(1) {
    const size_t length = wcsnlen(text, kWideSize - 1);
    std::wmemcpy(m_szWide, text, length);
    m_szWide[length] = L'\0';
}

_bstr_t::operator char*() {
    if (m_byWide == 0)
        return m_szNarrow;
    const size_t size = std::min(MB_CUR_MAX * std::wcslen(m_szWide) + 1, kNarrowSize);
    const size_t length = std::wcstombs(m_szNarrow, m_szWide, size);
    if (length == kConversionFailed)
        std::strcpy(m_szNarrow, "conversion ERROR!");
    else
        m_szNarrow[std::min(length, size - 1)] = '\0';
    return m_szNarrow;
}

_bstr_t::operator wchar_t*() {
    if (m_byWide != 0)
        return m_szWide;
    const size_t size = std::min(std::strlen(m_szNarrow) + 1, kWideSize);
    const size_t length = std::mbstowcs(m_szWide, m_szNarrow, size);
    if (length == kConversionFailed)
        std::wcscpy(m_szWide, L"conversion ERROR!");
    else
        m_szWide[std::min(length, size - 1)] = L'\0';
    return m_szWide;
}

void PeekAllMessage(int) {}

void PeekSomeMessage(int) {}

void ResetThreadPtr(boost::thread** thread) {
    if (*thread == nullptr)
        return;
    const boost::this_thread::disable_interruption nothingThrows;
    (*thread)->join();
    delete *thread;
    *thread = nullptr;
}
