#ifndef COMMON_PLATFORMSHIMS_H_
#define COMMON_PLATFORMSHIMS_H_

#include <cstdio>
#include <cwchar>

namespace boost {
class thread;
}

// Services of another desktop platform, under the names by which the shared protocol code calls
// them. All are reentrant. NOLINTBEGIN(readability-identifier-naming): the names are given.

/**
 * Wall-clock time in milliseconds, truncated to 32 bits: it wraps about every 49.7 days and moves
 * with the system time. Only the unsigned difference of two readings has a meaning.
 */
unsigned int GetTickCount();

/// fopen for wide paths of up to 4095 bytes in the current locale. Returns fopen's result.
FILE* _wfopen(const wchar_t* path, const wchar_t* mode);

/// 1 when the file can be opened for reading, else 0.
int file_exists(const wchar_t* path);
int file_existsA(const char* path);

/**
 * Holds one string in its narrow or wide form and converts to the other on request, in the C
 * library's current locale. No heap: texts are cut at the end of the buffers.
 *
 * Ownership: both operators return the holder's own buffer, valid as long as the holder lives.
 */
class _bstr_t {
public:
    _bstr_t(const char* text);
    _bstr_t(const wchar_t* text);

    /// The narrow form; "conversion ERROR!" when the locale cannot express the text.
    operator char*();
    /// The wide form; L"conversion ERROR!" when the text is invalid in the locale.
    operator wchar_t*();

private:
    static constexpr size_t kNarrowSize = 2051;
    static constexpr size_t kWideSize = 1024;

    char m_byWide;  // 0 the narrow form was stored, 1 the wide one
    char m_szNarrow[kNarrowSize];
    wchar_t m_szWide[kWideSize];
};

/// Message pumps of the waiting loops. Nothing to serve on this platform.
void PeekAllMessage(int);
void PeekSomeMessage(int);

/**
 * Joins the thread, deletes it and sets the pointer to null; a null pointer is left alone.
 * Blocks: until the thread ends. Never call it on the thread that it joins.
 */
void ResetThreadPtr(boost::thread** thread);

// NOLINTEND(readability-identifier-naming)

#endif  // COMMON_PLATFORMSHIMS_H_
