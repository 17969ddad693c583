#pragma once
// The reactor between a Pam's descriptor and the Pam: each readiness report of the
// descriptor becomes one increment of the Pam's readableCount or writableCount, which the
// agent's own reactors (notifiees of the Pam) act on. The Pam owns its PamFdSm and must
// drop it before it goes: the PamFdSm keeps only a plain pointer back. Pams hold their
// descriptor and its reactor in a PamFd (below), which keeps that order.

#include <Korva/Pam.h>
#include <Mox/Activity.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Ptr.h>

#include <memory>

namespace Korva {

class PamFdSm : public Mox::PtrInterface {
 public:
  // Watches the descriptor for its PamFdSm.
  class MoxFileDesc : public Mox::FileDescriptor::Notifiee {
   public:
    MoxFileDesc(PamFdSm* owner, const Mox::Ptr<Mox::FileDescriptor>& fileDesc);
    void onReadableCount() override;
    void onWritableCount() override;

   private:
    PamFdSm* owner_;
  };

  // Takes the activity, watches the descriptor (none when it is empty), and then bumps the
  // Pam's readableCount and writableCount once each, so the Pam polls its descriptor as
  // soon as the reactor exists.
  PamFdSm(Mox::Ptr<Mox::ActivityConfig> activity, const Mox::Ptr<Mox::FileDescriptor>& fileDesc,
          Pam* pam);
  ~PamFdSm() override;

  virtual void handleReadable();
  virtual void handleWritable();
  virtual void activityIs(Mox::Ptr<Mox::ActivityConfig> activity);
  // The reactor is being torn down: readiness reports are ignored from now on.
  virtual void onZombie();
  virtual void fileDescDel();
  virtual void fileDescIs(const Mox::Ptr<Mox::FileDescriptor>& fileDesc);

  const Mox::Ptr<Mox::ActivityConfig>& activity() const noexcept { return activity_; }
  MoxFileDesc* fileDesc() const noexcept { return fileDesc_.get(); }
  Pam* pam() const noexcept { return pam_; }
  bool zombie() const noexcept { return zombie_ != 0; }

 private:
  Mox::Ptr<Mox::ActivityConfig> activity_;
  std::unique_ptr<MoxFileDesc> fileDesc_;
  Mox::U32 zombie_ = 0;
  Pam* pam_;
};

Mox::Ptr<PamFdSm> PamFdSmIs(Mox::Ptr<Mox::ActivityConfig> activity,
                            const Mox::Ptr<Mox::FileDescriptor>& fileDesc, Pam* pam);

// A Pam's watched descriptor: the descriptor entity, which owns the descriptor, and the
// reactor that reports it to the Pam. A Pam holds one PamFd and nothing else of the kind,
// so the one safe order of taking them down lives here: the reactor first, which stops
// reporting to the Pam even if someone else still holds it, then the descriptor entity,
// which closes the descriptor unless someone else still holds the entity. It happens when
// the Pam lets its descriptor go and, by itself, when the Pam goes.
class PamFd {
 public:
  PamFd() = default;
  PamFd(const PamFd&) = delete;
  PamFd& operator=(const PamFd&) = delete;
  ~PamFd() { del(); }

  const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const noexcept { return fileDesc_; }
  const Mox::Ptr<PamFdSm>& fdSm() const noexcept { return fdSm_; }
  // The descriptor itself; -1 when there is none.
  int descriptor() const noexcept { return fileDesc_ ? fileDesc_->descriptor() : -1; }

  // Watches `fileDesc` for `pam` in place of what was held before, with a fresh reactor
  // under this thread's activity (which polls the Pam once).
  void fileDescIs(const Mox::Ptr<Mox::FileDescriptor>& fileDesc, Pam* pam);
  void del() noexcept;

 private:
  Mox::Ptr<Mox::FileDescriptor> fileDesc_;
  Mox::Ptr<PamFdSm> fdSm_;
};

}  // namespace Korva
