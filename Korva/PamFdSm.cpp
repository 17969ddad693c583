#include <Korva/PamFdSm.h>

namespace Korva {

PamFdSm::MoxFileDesc::MoxFileDesc(PamFdSm* owner, const Mox::Ptr<Mox::FileDescriptor>& fileDesc)
    : owner_(owner) {
  notifierIs(fileDesc);
}

void PamFdSm::MoxFileDesc::onReadableCount() {
  if (!owner_->zombie()) owner_->handleReadable();
}

void PamFdSm::MoxFileDesc::onWritableCount() {
  if (!owner_->zombie()) owner_->handleWritable();
}

PamFdSm::PamFdSm(Mox::Ptr<Mox::ActivityConfig> activity,
                 const Mox::Ptr<Mox::FileDescriptor>& fileDesc, Pam* pam)
    : activity_(std::move(activity)), pam_(pam) {
  if (fileDesc) fileDesc_ = std::make_unique<MoxFileDesc>(this, fileDesc);
  pam_->readableCountInc(1);
  pam_->writableCountInc(1);
}

PamFdSm::~PamFdSm() {
  onZombie();
}

void PamFdSm::handleReadable() {
  pam_->readableCountInc(1);
}

void PamFdSm::handleWritable() {
  pam_->writableCountInc(1);
}

void PamFdSm::activityIs(Mox::Ptr<Mox::ActivityConfig> activity) {
  activity_ = std::move(activity);
}

void PamFdSm::onZombie() {
  zombie_ = 1;
  fileDesc_.reset();
}

void PamFdSm::fileDescDel() {
  fileDesc_.reset();
}

void PamFdSm::fileDescIs(const Mox::Ptr<Mox::FileDescriptor>& fileDesc) {
  fileDesc_.reset();
  if (fileDesc) fileDesc_ = std::make_unique<MoxFileDesc>(this, fileDesc);
}

Mox::Ptr<PamFdSm> PamFdSmIs(Mox::Ptr<Mox::ActivityConfig> activity,
                            const Mox::Ptr<Mox::FileDescriptor>& fileDesc, Pam* pam) {
  return Mox::Ptr<PamFdSm>(new PamFdSm(std::move(activity), fileDesc, pam));
}

void PamFd::fileDescIs(const Mox::Ptr<Mox::FileDescriptor>& fileDesc, Pam* pam) {
  del();
  fileDesc_ = fileDesc;
  fdSm_ = PamFdSmIs(Mox::ActivityConfig::current(), fileDesc_, pam);
}

void PamFd::del() noexcept {
  if (fdSm_) fdSm_->onZombie();
  fdSm_ = nullptr;
  fileDesc_ = nullptr;
}

}  // namespace Korva
