#ifndef TESKCLIENT_ERRORHANDLER_H_
#define TESKCLIENT_ERRORHANDLER_H_

#include <atomic>
#include <string>

#include "common/Export.h"
#include "common/LockOrder.h"
#include "common/Logger.h"

inline namespace screen_receiver {

/// std::atomic pointer that can be called through.
template <class T>
class AtomicPointer : public std::atomic<T*> {
public:
    using std::atomic<T*>::atomic;
    using std::atomic<T*>::operator=;
    T* operator->() const { return this->load(); }
};

/**
 * The error state of a protocol object: last code, up to two texts, and the place that raised it.
 *
 * Codes: 0 and above is success, the rows of ErrorTable.cpp are the system's own errors, any other
 * negative code is a negated errno. Every error is written to the log as it is recorded.
 *
 * Owns its logger (created closed). The record is guarded by m_ErrMutex; the texts that the getters
 * return are the object's own buffers, valid until the next call of the same getter, and may change
 * as soon as another thread records an error.
 */
class SR_API NibErrorHandler {
public:
    NibErrorHandler();
    ~NibErrorHandler();
    NibErrorHandler(const NibErrorHandler&) = delete;
    NibErrorHandler& operator=(const NibErrorHandler&) = delete;

    /**
     * Message of the current error, then " [file:line]" of its place; "OK [...]" when there is none
     * (the place of a success carries no meaning). Cut at 1023 bytes before the place.
     */
    virtual const char* GetErrorMessage();

    /// The current code. Takes no lock.
    virtual int GetErrorCode();

    /// Saves the record, so that a clean-up step that fails does not replace the error that
    /// matters.
    virtual void BackupError();
    /// Brings back what BackupError saved.
    virtual void RestoreError();

    /// Copies another object's current record; its saved copy and its logger are not copied.
    virtual void CopyError(NibErrorHandler* other);

    /// "file:line" of the current error.
    virtual const char* GetErrFileLine();

    /// Replaces the logger. The caller keeps ownership and must keep it alive; never null.
    virtual void SetLogger(Logger* logger);
    virtual Logger* GetLogger();

    /// Line of the current error, in decimal.
    const char* GetErrLineStr();

    /// Records an error whose place is this function. Both texts non-null, "" for none.
    void SetError(int code, const char* arg1, const char* arg2);

    /**
     * Records an error raised at file:line; the form for every raising place. Code 0 with empty
     * texts clears the record: it keeps the file of the error before.
     * @return code, so that a failing function ends in one statement:
     * @code
     * return SetErrorAt(kErrNoPorts, "", "", __FILE__, __LINE__);
     * @endcode
     */
    int SetErrorAt(int code, const char* arg1, const char* arg2, const char* file, int line);

    /// Takes over the file's last path component and logs the record. m_ErrMutex held.
    void WriteErrLog(const char* file);

protected:
    /**
     * A step that may be overridden returns a negative result and records its code; another thread
     * may record something else before the caller looks. Between BeginStep and CodeOfFailure the
     * thread's own record is kept apart: CodeOfFailure returns what the step recorded on this
     * thread; when it recorded nothing, the current code if that is negative, else `result`.
     * KeepFailure is for a step that fails with a code that stands recorded already.
     */
    void BeginStep();
    int CodeOfFailure(int result);
    int KeepFailure(int code);

    std::atomic<int> m_nErrCode;
    int m_nBackupErrCode;
    std::string m_strErrMsg;
    std::string m_strErrArg1;
    std::string m_strErrArg2;
    std::string m_strBackupErrMsg;
    std::string m_strBackupErrArg1;
    std::string m_strBackupErrArg2;
    int m_nErrLine;
    int m_nBackupErrLine;
    std::string m_strErrFile;
    std::string m_strErrLine;
    std::string m_strBackupErrFile;
    std::string m_strBackupErrLine;
    std::string m_strErrFileLine;
    AtomicPointer<Logger> m_pLogger;
    Logger m_Logger;
    OrderedMutex<LockRank::ErrorState> m_ErrMutex;
};

}  // namespace screen_receiver

#endif  // TESKCLIENT_ERRORHANDLER_H_
