#include <Korva/TcpClientServer.h>
#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace Korva {

namespace {

Mox::TraceHandle trace("TcpClientServer");

// The level and option of one setting, by family.
struct FamilyOption {
  int level;
  int option;
};

FamilyOption familyOption(AddressFamily af, FamilyOption v4, FamilyOption v6) {
  if (af == AddressFamily::ipv4) return v4;
  MOX_ASSERT_TEXT(af == AddressFamily::ipv6, "0 && \"Unknown af\"");
  return v6;
}

int setFamilyOption(AddressFamily af, int fd, FamilyOption v4, FamilyOption v6, int value,
                    bool verify) {
  const FamilyOption which = familyOption(af, v4, v6);
  return setSocketOptionInteger(fd, which.level, which.option, value, verify);
}

const char* errorText(int error) {
  return strerror(error);
}

}  // namespace

// --- socket functions ---

int setSockOptTxTtl(AddressFamily af, int fd, bool enabled, IpTtl ttl) {
  return setFamilyOption(af, fd, {IPPROTO_IP, IP_TTL}, {IPPROTO_IPV6, IPV6_UNICAST_HOPS},
                         enabled ? int(ttl.value()) : -1, enabled);
}

int setSockOptTxDs(AddressFamily af, int fd, bool enabled, IpDscp dscp) {
  // The kernel keeps the ECN bits of its own, so the byte is not read back.
  return setFamilyOption(af, fd, {IPPROTO_IP, IP_TOS}, {IPPROTO_IPV6, IPV6_TCLASS},
                         enabled ? int(dscp.value()) : 0, false);
}

int setSockOptRxMinTtl(AddressFamily af, int fd, bool enabled, IpTtl ttl) {
  return setFamilyOption(af, fd, {IPPROTO_IP, IP_MINTTL}, {IPPROTO_IPV6, IPV6_MINHOPCOUNT},
                         enabled ? int(ttl.value()) : 0, enabled);
}

int setSockMd5AuthOption(int fd, const IpGenAddrWithMask& addrWithMask, const Mox::String8& key) {
  MOX_ASSERT_TEXT(key.size() < 80, "key.bytes() < 80");
  tcp_md5sig sig{};
  static_assert(sizeof sig == 216);
  constructSockAddr(reinterpret_cast<sockaddr*>(&sig.tcpm_addr), addrWithMask.ipGenAddr());
  sig.tcpm_keylen = U16(key.size());
  std::memcpy(sig.tcpm_key, key.data(), key.size());
  // A whole address is the plain option; a shorter prefix needs the extended one.
  int option = TCP_MD5SIG;
  if (addrWithMask.len() < addrWithMask.ipGenAddr().size() * 8) {
    option = TCP_MD5SIG_EXT;
    sig.tcpm_flags = TCP_MD5SIG_FLAG_PREFIX;
    sig.tcpm_prefixlen = U8(addrWithMask.len());
  }
  return setsockopt(fd, IPPROTO_TCP, option, &sig, sizeof sig);
}

namespace {

// One end of the socket's connection: getsockname or getpeername.
bool endOf(int (*read)(int, sockaddr*, socklen_t*), int fd, IpGenAddr* addr, Port* port) {
  SockAddr end{};
  socklen_t length = sizeof end;
  if (read(fd, &end.base, &length) != 0) return false;
  *addr = sockAddrIpGenAddr(&end.base);
  *port = Port(sockAddrPort(&end.base));
  return true;
}

}  // namespace

TcpConnSocket socketConnected(const Mox::Ptr<TcpFd>& fd, const IpGenAddr& serverAddr,
                              Port serverPort) {
  IpGenAddr src;
  Port srcPort;
  if (!endOf(getsockname, fd->descriptor(), &src, &srcPort)) return TcpConnSocket();
  MOX_TRACE(trace, 3,
            "Connected: fd=" << fd->descriptor() << " addr=" << serverAddr
                             << " port=" << serverPort.value());
  return TcpConnSocket(fd, src, srcPort, serverAddr, serverPort);
}

TcpConnSocket socketAccepted(const Mox::Ptr<TcpFd>& fd, AddressFamily af) {
  MOX_TRACE(trace, 3, "Accepted: fd=" << fd->descriptor() << " af=" << af);
  IpGenAddr src, dst;
  Port srcPort, dstPort;
  if (!endOf(getsockname, fd->descriptor(), &src, &srcPort) ||
      !endOf(getpeername, fd->descriptor(), &dst, &dstPort)) {
    return TcpConnSocket();
  }
  return TcpConnSocket(fd, src, srcPort, dst, dstPort);
}

// --- TcpSmBase ---

TcpSmBase::TcpSmBase(Mox::Ptr<Pylon::TimerWheel> timerWheel, TcpConfigBase* config)
    : timerWheel_(std::move(timerWheel)) {
  retryTimer_.notifierIs(timerWheel_);
  timeoutTimer_.notifierIs(timerWheel_);
  configReactor_.notifierIs(config);
}

TcpSmBase::~TcpSmBase() = default;

std::string TcpSmBase::formatDerivedType() const {
  MOX_ASSERT(false && "must be implemented by derived type");
}

void TcpSmBase::handleRetry() {
  MOX_ASSERT(0 && "Need to implement handleRetry in derived class");
}

void TcpSmBase::handleTimeout() {
  MOX_ASSERT(0 && "Need to implement handleTimeout in derived class");
}

void TcpSmBase::handleInitialized() {
  MOX_ASSERT(0 && "Need to implement handleInitialized in derived class");
}

void TcpSmBase::stopRetryTimerImpl() {
  retryTimer_.expiryIs(Mox::kNever);
}

void TcpSmBase::restartRetryTimerImpl(U32 interval) {
  retryTimer_.expiryIs(Mox::now() + interval);
}

void TcpSmBase::stopTimeoutTimerImpl() {
  timeoutTimer_.expiryIs(Mox::kNever);
}

void TcpSmBase::startTimeoutTimerImpl() {
  timeoutTimer_.expiryIs(Mox::now() + tcpConfig()->timeout());
}

void TcpSmBase::startTimeoutTimer() {
  if (tcpConfig()->timeout() != 0 && !timeoutTimer_.running()) startTimeoutTimerImpl();
}

void TcpSmBase::stopTimers() {
  stopRetryTimerImpl();
  stopTimeoutTimerImpl();
}

int TcpSmBase::applySocketOptions(int fd) {
  const TcpConfigBase& config = *tcpConfig();
  const TcpSocketOptions options = config.options();
  const AddressFamily family = af();
  if (options.optionTxTtl()) {
    MOX_TRACE(trace, 5,
              "Set TxTtl: af=" << family << " enabled=" << true << " txTtl=" << config.txTtl());
    if (const int result = setSockOptTxTtl(family, fd, true, config.txTtl())) {
      MOX_TRACE(trace, 0, "TxTtl error: af=" << family);
      return result;
    }
  }
  if (options.optionTxDs()) {
    MOX_TRACE(trace, 5,
              "Set TxDs: af=" << family << " enabled=" << true
                              << " txDs=" << unsigned(config.txDs().value()));
    if (const int result = setSockOptTxDs(family, fd, true, config.txDs())) {
      MOX_TRACE(trace, 0, "TxDs error: af=" << family);
      return result;
    }
  }
  if (options.optionRxMinTtl()) {
    MOX_TRACE(
        trace, 5,
        "Set RxMinTtl: af=" << family << " enabled=" << true << " rxMinTtl=" << config.rxMinTtl());
    if (const int result = setSockOptRxMinTtl(family, fd, true, config.rxMinTtl())) {
      MOX_TRACE(trace, 0, "RxMinTtl error: af=" << family);
      return result;
    }
  }
  if (options.optionMd5Auth()) {
    for (const auto& entry : config.md5AuthColl()) {
      // Named copies: the trace's lambda cannot capture structured bindings under clang 14.
      const auto& prefix = entry.first;
      const auto& md5AuthOptionKey = entry.second;
      MOX_ASSERT_TEXT("" != md5AuthOptionKey, "\"\" != md5AuthOptionKey");
      MOX_TRACE(trace, 5, "Set Md5Auth: sd=" << fd << " key " << prefix);
      if (const int result = setSockMd5AuthOption(fd, prefix, md5AuthOptionKey)) {
        MOX_TRACE(trace, 0, "Md5Auth error: " << errorText(errno));
        return result;
      }
    }
  }
  lastOptionsAppliedIs(options);
  return 0;
}

int TcpSmBase::watchSocket(bool readable, bool writable) {
  fd_->edgeTriggeredIs(tcpConfig()->edgeTriggeredFileDescriptor());
  fd_->notifyOnReadableIs(readable);
  fd_->notifyOnWritableIs(writable);
  fdReactor_.notifierIs(fd_.get());
  try {
    fd_->enabledIs(true);
  } catch (const Mox::ErrnoException& e) {
    return e.errorNumber();
  }
  return 0;
}

void TcpSmBase::dropSocket() {
  fdReactor_.notifierIs(nullptr);
  fd_->enabledIs(false);
  fd_ = nullptr;
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpSmBase::handleSocketOptions() {
  const int fd = liveDescriptor();
  if (fd < 0) return;
  if (applySocketOptions(fd) != 0) {
    MOX_TRACE(trace, 0, "Setsockopt on the live socket failed: " << errorText(errno));
  }
}

void TcpSmBase::handleSocketMd5AuthOption(const IpGenAddrWithMask& prefix) {
  const int fd = liveDescriptor();
  if (fd < 0 || !tcpConfig()->options().optionMd5Auth()) return;
  // A key that went away is deleted (the empty key).
  if (setSockMd5AuthOption(fd, prefix, tcpConfig()->md5Auth(prefix)) != 0) {
    MOX_TRACE(trace, 0, "Md5Auth error: " << errorText(errno));
  }
}

// --- TcpServerSm ---

TcpServerSm::TcpServerSm(Mox::Ptr<Pylon::TimerWheel> timerWheel,
                         Mox::Ptr<TcpServerConfig> tcpServerConfig,
                         Mox::Ptr<TcpServerStatus> tcpServerStatus)
    : TcpSmBase(std::move(timerWheel), tcpServerConfig.get()),
      config_(std::move(tcpServerConfig)),
      status_(std::move(tcpServerStatus)) {
  handleInitialized();
}

TcpServerSm::~TcpServerSm() {
  cleanup();
}

void TcpServerSm::handleInitialized() {
  initializedIs(true);
  lastOptionsAppliedIs(TcpSocketOptions());
  status_->listeningIs(false);
}

void TcpServerSm::cleanup() {
  stopListener();
}

std::string TcpServerSm::formatDerivedType() const {
  std::ostringstream text;
  text << "<listenIp=" << config_->listenIpAddr() << " listenPort=" << config_->listenPort().value()
       << " this=" << static_cast<const void*>(this) << ">";
  return text.str();
}

bool TcpServerSm::startListener() {
  if (config_->listenPort().value() == 0) {
    status_->reasonIs("Listening port is 0");
    return false;
  }
  if (fd()) {
    MOX_TRACE(trace, 3, "Already listening");
    return true;
  }
  startTimeoutTimer();
  if (!openListeningSocket()) {
    restartRetryTimerImpl(config_->retryInterval());
    return false;
  }
  // Its result is deliberately ignored: a bound socket that cannot listen shows no peers.
  listen(fd()->descriptor(), int(backlog_));
  status_->serverStartTimesInc();
  status_->listeningIs(true);
  status_->reasonIs("Listening");
  return true;
}

bool TcpServerSm::openListeningSocket() {
  fdIs(TcpFd::socket(af(), config_->networkNamespace()));
  if (!fd()) {
    handleServerError("Socket", errorText(errno));
    return false;
  }
  const int sd = fd()->descriptor();
  if (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, true) != 0) {
    handleServerError("Setsockopt(REUSE)", errorText(errno));
    return false;
  }
  if (applySocketOptions(sd) != 0) {
    handleServerError("Setsockopt", errorText(errno));
    return false;
  }
  if (af() == AddressFamily::ipv6 &&
      setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_V6ONLY, v6Only_, true) != 0) {
    handleServerError("Setsockopt(V6OONLY)", errorText(errno));
    return false;
  }
  MOX_TRACE(trace, 3,
            "Bind: sd=" << sd << " addr=" << config_->listenIpAddr()
                        << " port=" << config_->listenPort().value());
  if (socketBind(sd, config_->listenIpAddr(), config_->listenPort().value()) != 0) {
    handleServerError("Bind", errorText(errno));
    return false;
  }
  if (const int error = watchSocket(true, false)) {
    handleServerError("Watch", errorText(error));
    return false;
  }
  return true;
}

void TcpServerSm::stopListener() {
  if (!initialized()) return;
  stopTimers();
  status_->connSocketDelAll();
  status_->listeningIs(false);
  if (fd()) dropSocket();
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpServerSm::restartListener() {
  if (!initialized()) return;
  stopListener();
  startListener();
}

void TcpServerSm::handleServerError(const char* functionName, const char* errorString) {
  status_->reasonIs(Mox::String8(functionName) + " (" + errorString + ")");
  MOX_TRACE(trace, 1, formatDerivedType() << ": " << status_->reason());
  if (fd()) {
    MOX_TRACE(trace, 3, "Disabling fd");
    dropSocket();
  }
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpServerSm::handleAccept() {
  // An edge-triggered watch reports a waiting backlog once: it is taken whole.
  while (acceptOne() && fd()->edgeTriggered()) {
  }
}

bool TcpServerSm::acceptOne() {
  if (!fd()) return false;
  Mox::Ptr<TcpFd> accepted = TcpFd::socketAccept(fd(), af(), config_->networkNamespace());
  if (!accepted) {
    const int error = errno;
    if (error == EAGAIN || error == EINTR) {
      status_->serverEagainEintrTimesInc();
      return error == EINTR;
    }
    handleServerError("Accept", errorText(error));
    if (restartOnAcceptError_) restartListener();
    return false;
  }
  const TcpConnSocket conn = socketAccepted(accepted, af());
  if (!conn.fd()) {
    // The peer left before it could be described (reset at once): its loss alone.
    MOX_TRACE(trace, 1, "Accepted connection gone: " << errorText(errno));
    return true;
  }
  MOX_TRACE(trace, 3, "Accepted from " << conn.dstIpAddr() << " port " << conn.dstPort().value());
  if (applySocketOptions(accepted->descriptor()) != 0) {
    // Not queued: the connection closes with its TcpFd here.
    handleServerError("Setsockopt", errorText(errno));
    if (restartOnSetSockOptError_) restartListener();
    return false;
  }
  status_->connSocketEnq(conn);
  status_->connSocketCountInc();
  return true;
}

void TcpServerSm::handleRetry() {
  if (!initialized()) return;
  retryTimesInc();
  startListener();
}

void TcpServerSm::handleTimeout() {
  stopListener();
  status_->serverTimedOutTimesInc();
}

// --- TcpClientSm ---

TcpClientSm::TcpClientSm(Mox::Ptr<Pylon::TimerWheel> timerWheel, U32 clientId,
                         Mox::Ptr<TcpClientConfig> tcpClientConfig,
                         Mox::Ptr<TcpClientStatus> tcpClientStatus)
    : TcpSmBase(std::move(timerWheel), tcpClientConfig.get()),
      clientId_(clientId),
      config_(std::move(tcpClientConfig)),
      status_(std::move(tcpClientStatus)) {
  handleInitialized();
}

TcpClientSm::~TcpClientSm() {
  cleanup();
}

void TcpClientSm::handleInitialized() {
  initializedIs(true);
  lastOptionsAppliedIs(TcpSocketOptions());
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::idle);
  status_->resetConnSocket();
}

void TcpClientSm::cleanup() {
  stopConnection();
}

std::string TcpClientSm::formatDerivedType() const {
  std::ostringstream text;
  if (!initialized()) return "Not started";
  text << "<clientId=" << clientId_ << " serverIp=" << config_->serverIpAddr()
       << " serverPort=" << config_->serverPort().value()
       << " status=" << status_->connectionStatus() << " this=" << static_cast<const void*>(this)
       << ">";
  return text.str();
}

void TcpClientSm::restartRetryTimer() {
  using Status = TcpClientStatus::ConnectionStatus;
  const Status status = status_->connectionStatus();
  U32 interval = config_->retryInterval();
  if (status == Status::failed) {
    if (const U32 backoff = config_->exponentialBackoffRetries()) {
      interval <<= (retryTimes() % backoff) % 32;
    }
  } else if (status != Status::idle) {
    MOX_ASSERT_TEXT(status == Status::connecting,
                    "tcpClientStatus()->connectionStatus() == "
                    "TcpClientStatus::ConnectionStatus::connecting_");
    interval = config_->kernelTcpTimeout();
  }
  restartRetryTimerImpl(interval);
  // The interval first, so a watcher of retryTimerNext sees the pair.
  status_->retryTimerIntervalIs(interval);
  status_->retryTimerNextIs(retryTimerExpireTime());
}

bool TcpClientSm::startConnection() {
  if (fd()) {
    MOX_TRACE(trace, 3, "Disabling fd from previous connection attempt");
    dropSocket();
  }
  status_->connectionAttemptCountInc();
  startTimeoutTimer();
  if (!openAndConnect()) {
    restartRetryTimer();
    return false;
  }
  MOX_TRACE(trace, 3, "Connection is in progress");
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::connecting);
  restartRetryTimer();
  return true;
}

bool TcpClientSm::openAndConnect() {
  fdIs(TcpFd::socket(af(), config_->networkNamespace()));
  if (!fd()) {
    handleClientError("Socket", errorText(errno));
    return false;
  }
  const int sd = fd()->descriptor();
  if (!config_->clientIpAddr().isAddrZero() &&
      (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, true) != 0 ||
       socketBindClient(sd, af(), config_->clientIpAddr()) != 0)) {
    handleClientError("Bind", errorText(errno));
    return false;
  }
  if (applySocketOptions(sd) != 0) {
    handleClientError("Setsockopt", errorText(errno));
    return false;
  }
  if (const int error = watchSocket(false, true)) {
    handleClientError("Watch", errorText(error));
    return false;
  }
  MOX_TRACE(trace, 3, "Connect: sd=" << sd);
  const int connError =
      socketConnect(sd, config_->serverIpAddr(), config_->serverPort().value()) == 0 ? 0 : errno;
  if (connError != 0 && connError != EINPROGRESS) {
    handleClientError("Connect", errorText(connError));
    return false;
  }
  MOX_ASSERT_TEXT(connError == EINPROGRESS, "connError == 115");
  return true;
}

void TcpClientSm::handleConnect() {
  // Once connected, the socket's writability belongs to whoever carries the connection.
  if (!initialized() || !fd() ||
      status_->connectionStatus() != TcpClientStatus::ConnectionStatus::connecting) {
    return;
  }
  int soError = 0;
  if (getSocketOptionInteger(fd()->descriptor(), SOL_SOCKET, SO_ERROR, &soError) != 0) {
    handleClientError("Getsockopt", errorText(errno));
    restartRetryTimer();
    return;
  }
  if (soError != 0) {
    handleClientError("Connect", errorText(soError));
    restartRetryTimer();
    return;
  }
  stopTimers();
  fd()->notifyOnWritableIs(false);
  const TcpConnSocket conn = socketConnected(fd(), config_->serverIpAddr(), config_->serverPort());
  if (!conn.fd()) {
    handleClientError("Getsockname", errorText(errno));
    restartRetryTimer();
    return;
  }
  status_->connSocketIs(conn);
  status_->connectionSuccessCountInc();
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::connected);
}

bool TcpClientSm::connectionConfirmed(const Mox::Ptr<TcpFd>& fd, const IpGenAddr& addr,
                                      Port srcPort, Port dstPort) {
  stopConnection();
  fdIs(fd);
  if (applySocketOptions(fd->descriptor()) != 0) {
    handleClientError("Setsockopt", errorText(errno));
    status_->resetConnSocket();
    restartRetryTimer();
    return false;
  }
  // The local address is the socket's own; the ports are the owner's word.
  IpGenAddr src;
  Port boundPort;
  endOf(getsockname, fd->descriptor(), &src, &boundPort);
  status_->connSocketIs(TcpConnSocket(fd, src, srcPort, addr, dstPort));
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::connected);
  return true;
}

void TcpClientSm::handleClientError(const char* functionName, const char* errorString) {
  status_->reasonIs(Mox::String8(functionName) + " (" + errorString + ")");
  MOX_TRACE(trace, 1, formatDerivedType() << ": " << status_->reason());
  if (fd()) {
    MOX_TRACE(trace, 3, "Disabling fd");
    dropSocket();
  }
  status_->resetConnSocket();
  status_->connectionErrorCountInc();
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::failed);
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpClientSm::handleRetry() {
  if (!initialized()) return;
  retryTimesInc();
  startConnection();
}

void TcpClientSm::handleTimeout() {
  stopConnection();
  status_->connectionStatusIs(TcpClientStatus::ConnectionStatus::timedout);
}

void TcpClientSm::stopConnection() {
  if (!initialized()) return;
  stopTimers();
  if (fd()) dropSocket();
  status_->resetConnSocket();
  lastOptionsAppliedIs(TcpSocketOptions());
}

}  // namespace Korva
