#include "tests/cabi/cabi_names.h"

namespace {

constexpr int kState = 0x50c1a1;

}  // namespace

// The library has a class of this name with members of these names.
class Logger {
public:
    Logger();
    ~Logger();
    bool IsOpen() const;
    void Close();

private:
    int m_nState;
};

Logger::Logger() : m_nState(kState) {}
Logger::~Logger() = default;

bool Logger::IsOpen() const {
    return m_nState == kState;
}

void Logger::Close() {
    m_nState = 0;
}

bool PluginHasItsOwnLogger() {
    Logger logger;
    const bool isOpen = logger.IsOpen();
    logger.Close();
    return isOpen && !logger.IsOpen();
}
