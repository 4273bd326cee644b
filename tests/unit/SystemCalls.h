#ifndef TESTS_UNIT_SYSTEMCALLS_H_
#define TESTS_UNIT_SYSTEMCALLS_H_

namespace sr_test {

/**
 * Watches this thread's send() and recv() calls as long as it lives, and lets some of them fail.
 * Counting shows a busy loop whatever else the machine does; processor time does not.
 */
class SystemCalls {
public:
    SystemCalls();
    ~SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    /// The next `count` calls fail with `error` instead of reaching the kernel.
    void FailNext(int count, int error);

    int Failed() const { return m_nFailed; }
    int Succeeded() const { return m_nSucceeded; }

    // For the replaced functions.
    bool TakeInjected();
    void Count(bool success) { ++(success ? m_nSucceeded : m_nFailed); }

private:
    int m_nFailed = 0;
    int m_nSucceeded = 0;
    int m_nInject = 0;
    int m_nError = 0;
};

}  // namespace sr_test

#endif  // TESTS_UNIT_SYSTEMCALLS_H_
