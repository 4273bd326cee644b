#ifndef TESTS_UNIT_UNITSUPPORT_H_
#define TESTS_UNIT_UNITSUPPORT_H_

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace sr_test {

/// A folder that is gone with its content when the test ends.
class TempFolder {
public:
    TempFolder() {
        std::string path = (std::filesystem::temp_directory_path() / "sr-unit-XXXXXX").string();
        if (mkdtemp(&path[0]) == nullptr)
            throw std::runtime_error("no temporary folder");
        m_Path = path;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

/// How many descriptors the process holds open.
inline int OpenDescriptors() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

/// Another locale for the conversions of the C library, until the end of the block.
class ScopedLocale {
public:
    explicit ScopedLocale(const char* name) : m_Before(std::setlocale(LC_ALL, nullptr)) {
        if (std::setlocale(LC_ALL, name) == nullptr)
            throw std::runtime_error(std::string("no locale ") + name);
    }
    ~ScopedLocale() { std::setlocale(LC_ALL, m_Before.c_str()); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

private:
    std::string m_Before;
};

}  // namespace sr_test

#endif  // TESTS_UNIT_UNITSUPPORT_H_
