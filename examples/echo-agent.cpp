// echo-agent: answers every UDP datagram on port 7 of the given namespace with itself.
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>

class Echo : public Korva::UdpPam::Notifiee {
 public:
  explicit Echo(Korva::UdpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    Korva::UdpPam* pam = notifier();
    while (Mox::Ptr<Korva::Pkt> pkt = pam->rxPkt()) {  // one datagram per call
      pam->txDstIpAddrIs(pam->rxSrcIpAddr());
      pam->txPortIs(pam->rxSrcPort());
      pam->txPktIs(pkt);
    }
  }
};

int main(int argc, char** argv) {
  Mox::Ptr<Korva::UdpPam> pam = Korva::udpPamFactory("echo");
  pam->netNsIs(Korva::NamespaceName(argc > 1 ? argv[1] : ""));  // "": the agent's own
  pam->rxPortIs(7);
  pam->modeIs(Korva::UdpPam::Mode::server);  // opens, binds and watches the socket
  Echo echo(pam.get());
  Mox::ActivityManagerConfig::current()->run();
}
