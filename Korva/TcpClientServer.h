#pragma once
// The TCP client and server machines. Each owns one TcpFd inside the namespace its
// configuration names and runs on this thread's event loop: a TcpServerSm listens and
// queues every accepted connection on its status entity (the owner takes them with
// getConnSocket()); a TcpClientSm connects to one server and reports the connection, or
// why there is none, on its status entity, retrying on a Pylon::TimerWheel with a fixed or
// saw-tooth exponential interval. Failures of system calls become a `reason` ("Connect
// (Connection refused)"), a counter and a retry: no exception leaves a machine. Neither
// starts by itself: the owner calls startListener() / startConnection().
//
//   auto config = Korva::tcpClientConfigFactory("bgp", Korva::IpGenAddr("10.0.0.2"),
//                                                Korva::Port(179));
//   auto status = Korva::tcpClientStatusFactory("bgp");
//   auto client = Mox::make<Korva::TcpClientSm>(wheel, 1, config, status);
//   client->startConnection();
//   ... status->connectionStatus() == connected: status->connSocket().fd() is the socket

// The socket functions the machines are built on (setSocketOptionInteger with read-back,
// constructSockAddr, socketBind, socketBindClient, socketConnect) come with them.
#include <Korva/SocketUtils.h>
#include <Korva/TcpClientServer.mox.h>
#include <Pylon/TimerWheel.h>

#include <string>

namespace Korva {

class TcpServerStatus : public TcpServerStatusBase {
 public:
  // Takes the oldest accepted connection off the queue; empty when none waits.
  TcpConnSocket getConnSocket() { return connSocketDeq(); }

 protected:
  using TcpServerStatusBase::TcpServerStatusBase;

 private:
  friend Mox::Ptr<TcpServerStatus> tcpServerStatusFactory(const Mox::Name& name);
};

class TcpClientStatus : public TcpClientStatusBase {
 public:
  void resetConnSocket() { connSocketDel(); }

 protected:
  using TcpClientStatusBase::TcpClientStatusBase;

 private:
  friend Mox::Ptr<TcpClientStatus> tcpClientStatusFactory(const Mox::Name& name);
};

// Socket options of the machines. Each returns 0, or what the failing call returned with
// errno set; an address family other than IPv4 or IPv6 aborts.
// TTL (hop limit) of sent packets; the kernel's default when not enabled.
int setSockOptTxTtl(AddressFamily af, int fd, bool enabled, IpTtl ttl);
// Traffic-class byte of sent packets; 0 when not enabled.
int setSockOptTxDs(AddressFamily af, int fd, bool enabled, IpDscp dscp);
// Least TTL (hop limit) a received packet must have; 0 (none) when not enabled.
int setSockOptRxMinTtl(AddressFamily af, int fd, bool enabled, IpTtl ttl);
// TCP-MD5 key for the peers of `addrWithMask`; an empty key deletes it.
int setSockMd5AuthOption(int fd, const IpGenAddrWithMask& addrWithMask, const Mox::String8& key);
// The connection on `fd` from its two ends; no fd (errno set) when they cannot be read.
TcpConnSocket socketConnected(const Mox::Ptr<TcpFd>& fd, const IpGenAddr& serverAddr,
                              Port serverPort);
TcpConnSocket socketAccepted(const Mox::Ptr<TcpFd>& fd, AddressFamily af);

// What both machines share: the two timers, the configuration and the socket options.
class TcpSmBase : public Mox::PtrInterface {
 public:
  ~TcpSmBase() override;

  const Mox::Ptr<Pylon::TimerWheel>& timerWheel() const noexcept { return timerWheel_; }
  TcpConfigBase* tcpConfig() const noexcept { return configReactor_.notifier(); }
  U32 retryTimes() const noexcept { return retryTimes_; }
  bool initialized() const noexcept { return initialized_; }
  TcpSocketOptions lastOptionsApplied() const noexcept { return lastOptionsApplied_; }
  // The machine's socket (listening, connecting or connected) and its watched descriptor;
  // none between attempts.
  const Mox::Ptr<TcpFd>& fd() const noexcept { return fd_; }
  Mox::Ptr<Mox::FileDescriptor> fileDesc() const { return fd_ ? fd_->fileDesc() : nullptr; }

  // Sets every option switched on in `options` on `fd`: 0, or the first failing result.
  int applySocketOptions(int fd);

  // The virtual operations come in this order (classes derived by owners rely on it), so
  // the access changes as it goes.
 protected:
  virtual void handleRetry();
  virtual void stopRetryTimerImpl();
  virtual void restartRetryTimerImpl(U32 interval);

 public:
  // Absolute expiry times; Mox::kNever when stopped.
  virtual double retryTimerExpireTime() const noexcept { return retryTimer_.expiry(); }

 protected:
  virtual void handleTimeout();
  virtual void stopTimeoutTimerImpl();
  virtual void startTimeoutTimerImpl();

 public:
  virtual double timeoutTimerExpireTime() const noexcept { return timeoutTimer_.expiry(); }
  virtual std::string formatDerivedType() const;
  // The family of the configured address.
  virtual AddressFamily af() const = 0;

 protected:
  virtual void handleInitialized();
  // Re-applies the options to the live socket.
  virtual void handleSocketOptions();
  // Sets or clears the key of one prefix on the live socket.
  virtual void handleSocketMd5AuthOption(const IpGenAddrWithMask& prefix);
  virtual void retryTimesInc() noexcept { ++retryTimes_; }
  virtual void retryTimesIs(U32 times) noexcept { retryTimes_ = times; }
  virtual void initializedIs(bool initialized) noexcept { initialized_ = initialized; }
  virtual void lastOptionsAppliedIs(TcpSocketOptions options) noexcept {
    lastOptionsApplied_ = options;
  }
  // Readiness of the socket.
  virtual void handleReadable() {}
  virtual void handleWritable() {}

  TcpSmBase(Mox::Ptr<Pylon::TimerWheel> timerWheel, TcpConfigBase* config);

  // The overall timeout runs from the first attempt: armed only when not running.
  void startTimeoutTimer();
  void stopTimers();
  // The socket options apply to now; none (-1) without one.
  int liveDescriptor() const noexcept { return fd_ ? fd_->descriptor() : -1; }
  void fdIs(Mox::Ptr<TcpFd> fd) { fd_ = std::move(fd); }
  // Watches the socket for the machine; the errno of a failed watch, else 0.
  int watchSocket(bool readable, bool writable);
  // Stops watching and lets the socket go.
  void dropSocket();

 private:
  class RetryTimer : public Pylon::TimerWheel::Timer {
   public:
    explicit RetryTimer(TcpSmBase* owner) : owner_(owner) {}
    void onExpiry() override { owner_->handleRetry(); }

   private:
    TcpSmBase* owner_;
  };
  class TimeoutTimer : public Pylon::TimerWheel::Timer {
   public:
    explicit TimeoutTimer(TcpSmBase* owner) : owner_(owner) {}
    void onExpiry() override { owner_->handleTimeout(); }

   private:
    TcpSmBase* owner_;
  };
  // Reports readiness of the socket to the machine.
  class FdReactor : public TcpFd::Notifiee {
   public:
    explicit FdReactor(TcpSmBase* owner) : owner_(owner) {}
    void onSocketReadableCount() override { owner_->handleReadable(); }
    void onSocketWritableCount() override { owner_->handleWritable(); }

   private:
    TcpSmBase* owner_;
  };
  // Re-applies options when the configuration changes them.
  class ConfigReactor : public TcpConfigBase::Notifiee {
   public:
    explicit ConfigReactor(TcpSmBase* owner) : owner_(owner) {}
    void onTxTtl() override { owner_->handleSocketOptions(); }
    void onTxDs() override { owner_->handleSocketOptions(); }
    void onRxMinTtl() override { owner_->handleSocketOptions(); }
    void onOptions() override { owner_->handleSocketOptions(); }
    void onMd5Auth(const IpGenAddrWithMask& prefix) override {
      owner_->handleSocketMd5AuthOption(prefix);
    }

   private:
    TcpSmBase* owner_;
  };

  Mox::Ptr<Pylon::TimerWheel> timerWheel_;
  U32 retryTimes_ = 0;
  bool initialized_ = false;
  TcpSocketOptions lastOptionsApplied_;
  RetryTimer retryTimer_{this};
  TimeoutTimer timeoutTimer_{this};
  ConfigReactor configReactor_{this};
  Mox::Ptr<TcpFd> fd_;
  FdReactor fdReactor_{this};
};

class TcpServerSm : public TcpSmBase {
 public:
  TcpServerSm(Mox::Ptr<Pylon::TimerWheel> timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
              Mox::Ptr<TcpServerStatus> tcpServerStatus);
  ~TcpServerSm() override;

  // Opens, binds and listens; false (with `reason` set) when that failed.
  bool startListener();
  void stopListener();
  void restartListener();
  void cleanup();

  const Mox::Ptr<TcpServerConfig>& tcpServerConfig() const noexcept { return config_; }
  const Mox::Ptr<TcpServerStatus>& tcpServerStatus() const noexcept { return status_; }
  bool restartOnAcceptError() const noexcept { return restartOnAcceptError_; }
  virtual void restartOnAcceptErrorIs(bool on) noexcept { restartOnAcceptError_ = on; }
  bool restartOnSetSockOptError() const noexcept { return restartOnSetSockOptError_; }
  virtual void restartOnSetSockOptErrorIs(bool on) noexcept { restartOnSetSockOptError_ = on; }
  U32 backlog() const noexcept { return backlog_; }
  virtual void backlogIs(U32 backlog) noexcept { backlog_ = backlog; }
  bool v6Only() const noexcept { return v6Only_; }
  virtual void v6OnlyIs(bool on) noexcept { v6Only_ = on; }

  AddressFamily af() const override { return config_->listenIpAddr().af(); }
  std::string formatDerivedType() const override;

 protected:
  void handleAccept();
  void handleServerError(const char* functionName, const char* errorString);
  void handleRetry() override;
  void handleTimeout() override;
  void handleInitialized() override;
  void handleReadable() override { handleAccept(); }

 private:
  // Steps 4-8 of listening: the socket, bound; false after handleServerError.
  bool openListeningSocket();
  // Takes one waiting connection; false when no more can be taken now.
  bool acceptOne();

  Mox::Ptr<TcpServerConfig> config_;
  Mox::Ptr<TcpServerStatus> status_;
  bool restartOnAcceptError_ = true;
  bool restartOnSetSockOptError_ = true;
  U32 backlog_ = 5;
  bool v6Only_ = true;
};

class TcpClientSm : public TcpSmBase {
 public:
  TcpClientSm(Mox::Ptr<Pylon::TimerWheel> timerWheel, U32 clientId,
              Mox::Ptr<TcpClientConfig> tcpClientConfig, Mox::Ptr<TcpClientStatus> tcpClientStatus);
  ~TcpClientSm() override;

  // One connection attempt; true when it is in progress.
  bool startConnection();
  void stopConnection();
  // Adopts a connection established by other means.
  bool connectionConfirmed(const Mox::Ptr<TcpFd>& fd, const IpGenAddr& addr, Port srcPort,
                           Port dstPort);
  void cleanup();

  U32 clientId() const noexcept { return clientId_; }
  const Mox::Ptr<TcpClientConfig>& tcpClientConfig() const noexcept { return config_; }
  const Mox::Ptr<TcpClientStatus>& tcpClientStatus() const noexcept { return status_; }
  // Jitter an owner may add to retry intervals; none here.
  virtual U32 retryTimerJitterPercentage() const { return 0; }

  AddressFamily af() const override { return config_->serverIpAddr().af(); }
  std::string formatDerivedType() const override;

 protected:
  // Arms the retry timer for the interval the connection status calls for.
  void restartRetryTimer();
  void handleConnect();
  void handleClientError(const char* functionName, const char* errorString);
  void handleRetry() override;
  void handleTimeout() override;
  void handleInitialized() override;
  void handleWritable() override { handleConnect(); }

 private:
  // Steps 3-6 of an attempt; false after handleClientError.
  bool openAndConnect();

  U32 clientId_;
  Mox::Ptr<TcpClientConfig> config_;
  Mox::Ptr<TcpClientStatus> status_;
};

}  // namespace Korva
