#include "TeskClient/ErrorHandler.h"

#include <cstdio>
#include <cstring>

#include "TeskClient/ErrorTable.h"
#include "common/PlatformShims.h"

namespace {

constexpr size_t kMessageSize = 1024;

// What this thread has recorded last, and where: see NibErrorHandler::BeginStep.
struct RecordedHere {
    const NibErrorHandler* object;
    int code;
};
thread_local RecordedHere t_Recorded = {nullptr, 0};

std::string SystemText(int code) {
    // The lowest code has no positive counterpart; unsigned arithmetic keeps it as it is.
    const int number = static_cast<int>(0u - static_cast<unsigned>(code));
    char buffer[256];
    return strerror_r(number, buffer, sizeof buffer);
}

std::string FormatRow(const char* message, const std::string& arg1, const std::string& arg2) {
    char text[kMessageSize];
    std::snprintf(text, sizeof text, message, arg1.c_str(), arg2.c_str());
    return text;
}

}  // namespace

NibErrorHandler::NibErrorHandler()
    : m_nErrCode(0),
      m_nBackupErrCode(0),
      m_nErrLine(0),
      m_nBackupErrLine(0),
      m_pLogger(&m_Logger) {}

NibErrorHandler::~NibErrorHandler() = default;

const char* NibErrorHandler::GetErrorMessage() {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    const int code = m_nErrCode;
    std::string text;
    if (code >= 0) {
        text = "OK";
    } else if (const char* message = FindErrorMessage(code)) {
        text = FormatRow(message, m_strErrArg1, m_strErrArg2);
    } else {
        text = SystemText(code) + m_strErrArg1;
    }
    m_strErrMsg = text + " [" + GetErrFileLine() + "]";
    return m_strErrMsg.c_str();
}

int NibErrorHandler::GetErrorCode() {
    return m_nErrCode;
}

void NibErrorHandler::BackupError() {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_nBackupErrCode = m_nErrCode;
    m_strBackupErrMsg = m_strErrMsg;
    m_strBackupErrArg1 = m_strErrArg1;
    m_strBackupErrArg2 = m_strErrArg2;
    m_nBackupErrLine = m_nErrLine;
    m_strBackupErrFile = m_strErrFile;
    m_strBackupErrLine = m_strErrLine;
}

void NibErrorHandler::RestoreError() {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_nErrCode = m_nBackupErrCode;
    m_strErrMsg = m_strBackupErrMsg;
    m_strErrArg1 = m_strBackupErrArg1;
    m_strErrArg2 = m_strBackupErrArg2;
    m_nErrLine = m_nBackupErrLine;
    m_strErrFile = m_strBackupErrFile;
    m_strErrLine = m_strBackupErrLine;
}

void NibErrorHandler::CopyError(NibErrorHandler* other) {
    // One lock after the other: two objects that copy from each other must not wait for each other.
    int code, line;
    std::string message, arg1, arg2, file, lineText;
    {
        boost::lock_guard<decltype(m_ErrMutex)> lock(other->m_ErrMutex);
        code = other->m_nErrCode;
        message = other->m_strErrMsg;
        arg1 = other->m_strErrArg1;
        arg2 = other->m_strErrArg2;
        line = other->m_nErrLine;
        file = other->m_strErrFile;
        lineText = other->m_strErrLine;
    }
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_nErrCode = code;
    m_strErrMsg = message;
    m_strErrArg1 = arg1;
    m_strErrArg2 = arg2;
    m_nErrLine = line;
    m_strErrFile = file;
    m_strErrLine = lineText;
}

const char* NibErrorHandler::GetErrFileLine() {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_strErrFileLine = m_strErrFile + ":" + GetErrLineStr();
    return m_strErrFileLine.c_str();
}

void NibErrorHandler::SetLogger(Logger* logger) {
    m_pLogger = logger;
}

Logger* NibErrorHandler::GetLogger() {
    return m_pLogger;
}

const char* NibErrorHandler::GetErrLineStr() {
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_strErrLine = std::to_string(m_nErrLine);
    return m_strErrLine.c_str();
}

void NibErrorHandler::SetError(int code, const char* arg1, const char* arg2) {
    SetErrorAt(code, arg1, arg2, __FILE__, __LINE__);
}

int NibErrorHandler::SetErrorAt(
    int code, const char* arg1, const char* arg2, const char* file, int line) {
    t_Recorded = {this, code};
    boost::lock_guard<decltype(m_ErrMutex)> lock(m_ErrMutex);
    m_nErrCode = code;
    m_strErrArg1 = arg1;
    m_strErrArg2 = arg2;
    m_nErrLine = line;
    WriteErrLog(file);
    return code;
}

void NibErrorHandler::WriteErrLog(const char* file) {
    if (GetErrorCode() >= 0)
        return;
    const char* slash = std::strrchr(file, '/');
    m_strErrFile = static_cast<char*>(_bstr_t(slash == nullptr ? file : slash + 1));
    m_pLogger->Write(kLogError, "ErrorCode=%d -> %s", GetErrorCode(),
                     static_cast<char*>(_bstr_t(GetErrorMessage())));
}

void NibErrorHandler::BeginStep() {
    t_Recorded = {nullptr, 0};
}

int NibErrorHandler::CodeOfFailure(int result) {
    if (t_Recorded.object == this && t_Recorded.code < 0)
        return t_Recorded.code;
    const int current = GetErrorCode();
    return current < 0 ? current : result;
}

int NibErrorHandler::KeepFailure(int code) {
    t_Recorded = {this, code};
    return code;
}
