#include <Korva/Pam.h>
#include <Mox/Assert.h>

namespace Korva {

void Pam::doGetRxPkt() {
  MOX_ASSERT(0 && "Need to implement doGetRxPkt in a derived class");
}

Mox::Ptr<Pkt> Pam::rxPkt() {
  return rxPktOf(*this);
}

Pam::RxMessage::RxMessage(U32 bytes) : capacity(bytes) {
  Pkt::Manager* manager = globalPktManager();
  pkt = manager->newPkt();
  if (pkt) {
    if (pkt->maxSharedData() < capacity) pkt->sharedBufferIs(manager->newSharedBuffer(capacity));
    MOX_ASSERT_TEXT(pkt->maxSharedData() >= capacity, "maxSize >= maxRxPktData()");
    iov = iovec{pkt->newSharedHeadData(capacity), capacity};
  } else {
    iov = iovec{nullptr, 0};
  }
  msg.msg_name = &source;
  msg.msg_namelen = sizeof source;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
}

ssize_t Pam::RxMessage::receive(int fd, int flags) {
  const ssize_t received = recvmsg(fd, &msg, flags);
  if (received >= 0 && pkt) pkt->delSharedTailData(capacity - U32(received));
  return received;
}

}  // namespace Korva
