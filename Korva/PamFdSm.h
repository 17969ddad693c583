#pragma once
// The reactor between a Pam's descriptor and the Pam: each readiness report of the
// descriptor becomes one increment of the Pam's readableCount or writableCount, which the
// agent's own reactors (notifiees of the Pam) act on. The Pam owns its PamFdSm and must
// drop it before it goes: the PamFdSm keeps only a plain pointer back. Pams give and take
// their descriptor and its reactor with pamFdIs and pamFdDel (below), which keep that order.

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

// Takes a Pam's watched descriptor away: its reactor (`fdSm`) first, which stops reporting
// to the Pam even if someone else still holds it, then the descriptor entity (`fileDesc`),
// which closes the descriptor unless someone else still holds it. Pams call it whenever the
// descriptor goes, their own destruction included.
template <class P>
void pamFdDel(P& pam) {
  if (pam.fdSm()) pam.fdSm()->onZombie();
  pam.fdSmDel();
  pam.fileDescDel();
}

// Gives a Pam its watched descriptor in place of any it had: the descriptor entity, which
// owns the descriptor, and a fresh reactor under this thread's activity, which polls the
// Pam once.
template <class P>
void pamFdIs(P& pam, const Mox::Ptr<Mox::FileDescriptor>& fileDesc) {
  pamFdDel(pam);
  pam.fileDescIs(fileDesc);
  pam.fdSmIs(PamFdSmIs(Mox::ActivityConfig::current(), fileDesc, &pam));
}

}  // namespace Korva
