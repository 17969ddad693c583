#include <Korva/ReqResponsePamFdSm.h>
#include <Mox/Assert.h>
#include <Mox/Trace.h>

namespace Korva {

namespace {
Mox::TraceHandle trace("ReqResponsePamFdSm");
}

void ReqResponsePamFdSm::handleWritable() {
  MOX_TRACE(trace, 8, "ReqResponsePamFdSm::handleWritable");
  auto* reqResponsePam = dynamic_cast<ReqResponseRawTxPam*>(pam());
  MOX_ASSERT(reqResponsePam);
  reqResponsePam->fileDesc()->notifyOnWritableIs(false);
  reqResponsePam->writableCountInc(1);
}

Mox::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(Mox::Ptr<Mox::ActivityConfig> activity,
                                                  const Mox::Ptr<Mox::FileDescriptor>& fileDesc,
                                                  Pam* pam) {
  return Mox::Ptr<ReqResponsePamFdSm>(new ReqResponsePamFdSm(std::move(activity), fileDesc, pam));
}

}  // namespace Korva
