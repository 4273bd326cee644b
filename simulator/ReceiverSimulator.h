#ifndef SIMULATOR_RECEIVERSIMULATOR_H_
#define SIMULATOR_RECEIVERSIMULATOR_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

/**
 * A screen receiver without a screen: serves the receiver's side of the wire protocol, keeps a
 * believable state, and misbehaves on command, for the tests of programs that control receivers.
 *
 * What status, notification and result values mean is a receiver's own affair. The meanings below
 * are this simulator's choice; a program that must work with real receivers must not rely on them.
 */
namespace simulator {

constexpr uint16_t kReceiverPort = 19996;

/// The most senders that a list can carry.
constexpr size_t kMaxSenders = 65535;

/// Bytes of a user name that a record can carry.
constexpr size_t kMaxUserName = 47;

/// Sender::status as this simulator uses it. Any other value is kept and sent unchanged.
enum SenderStatus : uint16_t {
    kStatusIdle = 0,
    kStatusReady = 1,  // logged in, may be shown
    kStatusShown = 2,  // reported for every sender that is shown, whatever its own status is
};

/// Sender::splitScreen of a sender that has no place on the screen.
constexpr uint8_t kNoSplitScreen = 0x80;

struct Sender {
    int32_t key = 0;       // unique; requests name a sender by it
    uint32_t address = 0;  // IPv4 as a number: 0x7F000001 is 127.0.0.1
    std::string userName;  // sent up to its first NUL and cut after kMaxUserName bytes
    uint16_t status = kStatusReady;
    uint8_t splitScreen = kNoSplitScreen;
    uint16_t osType = 0;  // this and the next two are sent in long records only
    uint16_t appType = 0;
    uint16_t pointerInputType = 0;
    bool local = false;  // local senders are left out of the non-local list
    bool valid = true;   // the others are left out of the valid list and cannot be shown
};

/// A believable sender with this key, the same in every run. Of four that follow one another three
/// are valid and one is local.
Sender SampleSender(int32_t key);

struct Moderator {
    int32_t id = 0;
    uint8_t flag = 0;
};

/// Results of the requests that carry one.
enum Result : int32_t {
    kResultOk = 0,
    kResultUnknownSender = 1,  // no sender has this key
    kResultAlreadyShown = 2,   // start: it is shown, with this or another option
    kResultNotShown = 3,       // stop: it is known, but not shown
    kResultNotValid = 4,       // start: its valid flag is off
    kResultNotInControl = 5,   // a steering request of a client without conference control, see
                               // Options::requireControl
};

/// First value of a notification; behind it what the second and the third value are.
enum NotifyKind : int32_t {
    kNotifySenderJoined = 1,      // key, status
    kNotifySenderLeft = 2,        // key, 0
    kNotifySenderChanged = 3,     // key, status
    kNotifyShowStarted = 4,       // key, option
    kNotifyShowStopped = 5,       // key, 0
    kNotifyModeratorChanged = 6,  // id, flag
    kNotifyConfControl = 7,       // a ConfControlChange, number of the client
    kNotifyTick = 8,              // running number, 0: receiver-sim --notify-every
    kNotifyFlood = 9,             // running number, 0: FaultKind::Flood
};

enum ConfControlChange : int32_t {
    kConfControlLeft = 0,     // by QuitConfCtrl
    kConfControlTaken = 1,    // by RefreshConfCtrlTimer, also from another client
    kConfControlExpired = 2,  // not refreshed in time
};

enum class RecordSize { Short, Long };  // 64 or 128 bytes a sender

struct Options {
    std::string address = "127.0.0.1";  // dotted IPv4
    uint16_t port = kReceiverPort;      // 0: any free one, see Port()
    RecordSize records = RecordSize::Long;
    /// A client with more unsent bytes than this is dropped when the next frame for it is due. What
    /// waits apart counts 512 bytes more: each frame that a fault has touched, each long one.
    size_t maxBacklog = size_t{16} * 1024 * 1024;
    /// Conference control ends when it is not refreshed for so long; 0: never.
    std::chrono::milliseconds confTimeout{30000};
    /// StartPlayImage, StopPlayImage, ForceSenderLogout and SetModeratorInfo are done only for the
    /// client that has conference control; the others get kResultNotInControl.
    bool requireControl = false;
    /// Everything random comes from it: garbage, Fault::percent, a scenario's crowd.
    uint64_t seed = 1;
};

/// What can be made to go wrong. "Frame" is a whole answer or notification, as sent to one client.
enum class FaultKind {
    Silent,         // the frame is not sent; a request has had its effect all the same
    Delay,          // sent `time` later; other frames may overtake it
    WrongCode,      // sent with command byte `code`
    Twice,          // sent two times
    Unasked,        // the answer of `command` is sent to all clients at once, then every `time`
    Cut,            // `bytes` of the frame are sent, then the connection does as `end` says
    Trickle,        // sent `bytes` at a time, one piece every `time`
    Garbage,        // `bytes` random bytes stand before, inside or after the frame
    FalseCount,     // a list announces `records`, and has as many as there are
    OpenName,       // the user names of a list have no NUL
    CloseOnAccept,  // the connection is closed as soon as it is accepted
    NeverRead,      // the connection is accepted and not read until the fault is switched off
    Flood,          // `rate` notifications a second to all clients
};

enum class CutEnd { Later, Close, Reset };  // the rest comes `time` later; FIN; RST
enum class GarbagePlace { Before, Inside, After };

/// Fault::command: which frames. A request's command byte stands for its answer.
constexpr int kEveryAnswer = -1;
constexpr int kEveryFrame = -2;
constexpr int kNotifications = 36;

/// Members that a kind does not name are unused.
struct Fault {
    FaultKind kind = FaultKind::Silent;
    int command = kEveryAnswer;
    uint64_t count = 0;  // the next so many frames, or connections; 0: for ever
    int percent = 100;   // of those that match, chosen by the seed; not Flood and Unasked
    std::chrono::milliseconds time{1000};
    int64_t bytes = -1;  // -1: half of one frame (Cut), 1 (Trickle), 16 (Garbage)
    int code = -1;       // -1: two more than the right one
    int records = -1;    // -1: one more than there are
    uint32_t rate = 1000;
    CutEnd end = CutEnd::Close;
    GarbagePlace place = GarbagePlace::Before;
    bool prefixParts = false;  // the garbage is made of beginnings of the frame prefix
};

/// One frame as it was received or queued for sending.
struct Frame {
    uint64_t client = 0;   // 1 for the first client since construction, then 2 ...
    bool incoming = true;  // from the client
    uint8_t code = 0;      // command byte
    std::string payload;   // empty for a command that receivers do not know
    std::string faults;    // what was done to it, e.g. "cut"; "silent": it was not sent
};

/// The frame in words, e.g. "StartPlayImage answer: 2 already shown".
std::string Describe(const Frame& frame);

enum class ClientChange {
    Connected,
    Left,            // closed by the client, or its link broke
    Closed,          // by DropClients() or Stop()
    BacklogDropped,  // did not read: see Options::maxBacklog
    Failed,          // dropped because memory ran out while it was served
    Faulted,         // closed or reset by a fault
};

/**
 * What a program wants to see of the traffic; members may be left empty. Called on the simulator's
 * thread with no lock held, so all methods but Start() and Stop() may be called from inside. It
 * must not throw, and nothing is served until it returns.
 */
struct Observer {
    std::function<void(const Frame&)> frame;
    /// `peer` is "address:port" of the client.
    std::function<void(uint64_t client, ClientChange change, const std::string& peer)> client;
    /// Bytes of a client that belong to no frame.
    std::function<void(uint64_t client, uint64_t bytes)> garbage;
    /// What a scenario's timeline did: the command and its answer, see Execute().
    std::function<void(const std::string& command, const std::string& answer)> timeline;
};

/// Counts since construction.
struct Statistics {
    uint64_t clients = 0;         // accepted
    uint64_t clientsDropped = 0;  // for their backlog
    uint64_t bytesReceived = 0;
    uint64_t framesReceived = 0;  // with unknown commands
    uint64_t framesSent = 0;      // queued for sending, each client's copy counted
    uint64_t garbageBytes = 0;    // skipped in front of a prefix
    uint64_t unknownCommands = 0;
    uint64_t faultsDone = 0;  // each frame or connection that a fault changed, each fault counted
};

/**
 * What a receiver does by itself: the first senders, the moderator, and a timeline of what happens
 * later. Read from JSON, see docs/simulator.md. A value; copies share the data.
 */
class Scenario {
public:
    /**
     * @param[out] error  when nothing is returned: the file, the place in it and what was expected
     *                    there, e.g. "meeting.json: /timeline/2/at: expected seconds ...".
     */
    static std::optional<Scenario> Load(const std::string& file, std::string& error);
    /// `name` stands for the file in `error`.
    static std::optional<Scenario> Parse(const std::string& text,
                                         const std::string& name,
                                         std::string& error);

    const std::string& Description() const;

    struct Data;  // private to the library
    const Data& GetData() const { return *m_pData; }

private:
    explicit Scenario(std::shared_ptr<const Data> data);

    std::shared_ptr<const Data> m_pData;
};

/**
 * The simulated receiver.
 *
 * Owns one listening socket, one thread that serves all clients, and the receiver's state, which
 * outlives Stop() and may be set up before Start().
 *
 * Frames are found by their prefix; bytes in front of one are skipped one at a time, and a command
 * byte that receivers do not know is ignored. The ten requests act as follows:
 *
 * | request                        | effect                                                      |
 * |--------------------------------|-------------------------------------------------------------|
 * | the three lists                | none; senders come in the order in which they joined        |
 * | StartPlayImage(key, option)    | shows the sender; lists then report kStatusShown and, as    |
 * |                                | split-screen position, the option. Any number may be shown  |
 * | StopPlayImage(key)             | ends that; lists report the sender's own values again       |
 * | ForceSenderLogout(key)         | removes the sender; one that is shown is stopped first      |
 * | GetModeratorInfo               | none                                                        |
 * | SetModeratorInfo(id, flag)     | stores both; any values are accepted                        |
 * | RefreshConfCtrlTimer           | the client takes conference control, also from another one, |
 * |                                | or keeps it for Options::confTimeout more                   |
 * | QuitConfCtrl                   | leaves it, if the client has it                             |
 *
 * Every change of the state, by a request or by a method, is notified to all clients that are
 * connected at that moment, in the order of the changes. What changes nothing is not notified. The
 * client that caused a change gets the answer first and the notification after it.
 *
 * Threads: any, at the same time, unless a method says otherwise.
 *
 * Blocks: methods that notify wait while 4096 notifications are on their way to the clients' queues
 * (not inside an Observer); nothing waits for a client.
 *
 * Example:
 * @code
 * simulator::Options options;
 * options.port = 0;
 * simulator::ReceiverSimulator receiver(options);
 * if (std::error_code error = receiver.Start())
 *     std::cerr << error.message() << "\n";
 * simulator::Sender sender;
 * sender.key = 7;
 * sender.userName = "Ada";
 * receiver.AddSender(sender);
 * @endcode
 */
class ReceiverSimulator {
public:
    explicit ReceiverSimulator(Options options = Options(), Observer observer = Observer());
    /// Stops. Not inside an Observer.
    ~ReceiverSimulator();
    ReceiverSimulator(const ReceiverSimulator&) = delete;
    ReceiverSimulator& operator=(const ReceiverSimulator&) = delete;

    /**
     * Listens and serves, until Stop(). May be called again after Stop().
     *
     * @return no error, or why it cannot listen: invalid_argument for an address that is not dotted
     *         IPv4, operation_in_progress when it is started already, else the system's error.
     *
     * Threads: any, but not inside an Observer.
     */
    std::error_code Start();

    /**
     * Closes the listening socket and all connections and ends the thread. Frames that were not yet
     * sent are lost. Harmless when not started.
     *
     * Threads: any, but not inside an Observer.
     */
    void Stop();

    const std::string& Address() const;
    /// The port that is served; before the first Start() the one that was asked for.
    uint16_t Port() const;

    /// False when the key is taken or there are kMaxSenders.
    bool AddSender(const Sender& sender);
    /// False when there is no such sender. One that is shown is stopped first.
    bool RemoveSender(int32_t key);
    /// Has `change` change the sender with this key, in one step for everybody else. It keeps its
    /// key and stays shown if it is. False when there is none. `change` must not call this object.
    bool ChangeSender(int32_t key, const std::function<void(Sender&)>& change);
    void SetModerator(const Moderator& moderator);

    /// Sends a notification of these three values to all clients.
    void Notify(int32_t first, int32_t second, int32_t third);

    /// As the requests of these names.
    Result StartPlay(int32_t key, uint8_t option);
    Result StopPlay(int32_t key);

    /// Closes all connections; what waits for a client that reads is still sent, but for what a
    /// fault holds back. Returns before they are closed: ClientCount() tells.
    void DropClients();

    /**
     * Switches a fault on, for every frame and connection from now on. It takes the place of one of
     * the same kind, command and garbage place. Of several that match a frame all kinds act, each
     * kind once: the one that was switched on first.
     *
     * @return false, and nothing is changed, for a fault that cannot be: a percentage outside 1 to
     *         100, a negative time or one above a day, more than 1 MiB of garbage, a rate of 0 or
     *         above 1,000,000, a command, code or count of records out of range, an unasked
     *         notification.
     */
    bool FaultOn(const Fault& fault);
    /// False when none of this kind (and this command, if given) is on, and none has left
    /// connections unread.
    bool FaultOff(FaultKind kind, std::optional<int> command = std::nullopt);
    void FaultsOff();
    /// Those that are on, in the order of their switching on, with what is left of their count.
    std::vector<Fault> Faults() const;

    /**
     * Does what a line of text says, e.g. "join 7 name=Ada" or "fault on silent count=1".
     *
     * @return one line without its end: "ok", with a result behind it if the command has one, or
     *         "error" and what was wrong; nothing has changed then. "help" tells the commands.
     */
    std::string Execute(const std::string& command);

    /**
     * Replaces the state by the scenario's. Its timeline begins with the next Start(), or with the
     * first client after it if the scenario says so, and ends with Stop().
     *
     * @return operation_in_progress when started.
     */
    std::error_code Play(const Scenario& scenario);

    /// In the order in which they joined, with their own status and position, also while shown.
    std::vector<Sender> Senders() const;
    Moderator GetModerator() const;
    bool ConfControlHeld() const;
    /// Number of the client that has conference control, 0 when none has.
    uint64_t ConfControlClient() const;
    bool IsShown(int32_t key) const;
    /// The option with which a sender is shown; none when it is not.
    std::optional<uint8_t> ShownOption(int32_t key) const;

    /// Clients that are connected now. One that has ended its sending counts until it has got all
    /// that is due to it, also what a fault holds back.
    size_t ClientCount() const;
    /// Whole frames received with this command byte.
    uint64_t FramesReceived(uint8_t code) const;
    Statistics GetStatistics() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_pImpl;
};

}  // namespace simulator

#endif  // SIMULATOR_RECEIVERSIMULATOR_H_
