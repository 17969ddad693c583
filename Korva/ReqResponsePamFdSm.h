#pragma once
// A PamFdSm for request/response Pams: writability is reported once per request. The Pam
// switches writable notification on when it has a request to send; this reactor switches
// it off again as it reports.

#include <Korva/PamFdSm.h>
#include <Korva/RawTxPam.mox.h>

namespace Korva {

class ReqResponsePamFdSm : public PamFdSm {
 public:
  using PamFdSm::PamFdSm;
  void handleWritable() override;
};

Mox::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(Mox::Ptr<Mox::ActivityConfig> activity,
                                                  const Mox::Ptr<Mox::FileDescriptor>& fileDesc,
                                                  Pam* pam);

}  // namespace Korva
