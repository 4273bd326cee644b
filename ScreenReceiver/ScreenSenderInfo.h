#ifndef SCREENRECEIVER_SCREENSENDERINFO_H_
#define SCREENRECEIVER_SCREENSENDERINFO_H_

#include <cstdint>
#include <string>

inline namespace screen_receiver {

/**
 * One sender as the receiver lists it. A plain value, filled by ScreenReceiverStub.
 *
 * What the numbers mean (status, split-screen position, types) is the receiver's affair.
 * GetUserName and GetProductID return the object's own text, valid as long as it is unchanged.
 */
class ScreenSenderInfo {
public:
    int GetPrimaryKey() const { return m_nPrimaryKey; }
    /// IPv4 address as a number: 0x7F000001 is 127.0.0.1.
    unsigned int GetIpAddress() const { return m_nIpAddress; }
    const char* GetUserName() const { return m_strUserName.c_str(); }
    int GetStatus() const { return static_cast<int>(m_nStatus); }
    unsigned char GetSplitScreen() const { return m_bySplitScreen; }

    // Only receivers that send long records fill these three; 0 otherwise.
    int GetOSType() const { return static_cast<int>(m_nOSType); }
    int GetAppType() const { return static_cast<int>(m_nAppType); }
    int GetPointInputType() const { return static_cast<int>(m_nPointInputType); }

    // Never filled from this protocol.
    unsigned char GetWebSlides() const { return m_byWebSlides; }
    unsigned short GetProtocolVersion() const { return m_wProtocolVersion; }
    bool IsSidebarNeeded() const { return m_bSidebarNeeded; }
    int GetSdkVersion() const { return static_cast<int>(m_nSdkVersion); }
    const char* GetProductID() const { return m_strProductID.c_str(); }

private:
    friend class ScreenReceiverStub;

    int32_t m_nPrimaryKey = 0;
    uint32_t m_nIpAddress = 0;
    std::string m_strUserName;
    uint32_t m_nStatus = 0;
    uint8_t m_bySplitScreen = 0x80;
    uint32_t m_nOSType = 0;
    uint32_t m_nAppType = 0;
    uint32_t m_nPointInputType = 0;
    uint8_t m_byWebSlides = 0;
    uint16_t m_wProtocolVersion = 0;
    bool m_bSidebarNeeded = false;
    uint32_t m_nSdkVersion = 0;
    std::string m_strProductID;
};

}  // namespace screen_receiver

#endif  // SCREENRECEIVER_SCREENSENDERINFO_H_
