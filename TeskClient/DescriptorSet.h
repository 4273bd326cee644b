#ifndef TESKCLIENT_DESCRIPTORSET_H_
#define TESKCLIENT_DESCRIPTORSET_H_

#include <sys/select.h>

#include <climits>
#include <vector>

/**
 * Descriptor set for select() with room for any descriptor. fd_set ends at 1024, and a process that
 * holds more open files would make FD_SET write behind it.
 */
class DescriptorSet {
public:
    explicit DescriptorSet(int largest) : m_Words(WordOf(largest) + 1) {}

    void Add(int fd) { m_Words[WordOf(fd)] |= BitOf(fd); }
    bool Has(int fd) const { return (m_Words[WordOf(fd)] & BitOf(fd)) != 0; }

    /// For select()'s arguments; the kernel touches the words up to its first argument only.
    fd_set* Get() { return reinterpret_cast<fd_set*>(m_Words.data()); }

private:
    static constexpr size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;

    static size_t WordOf(int fd) { return static_cast<size_t>(fd) / kWordBits; }
    static unsigned long BitOf(int fd) { return 1UL << (static_cast<size_t>(fd) % kWordBits); }

    std::vector<unsigned long> m_Words;
};

#endif  // TESKCLIENT_DESCRIPTORSET_H_
