// An interface type from outside the library, loaded as a shared object through
// KORVA_PLUGIN_PATH: a switch-chip "Recirc" port with two sub-types and a zero-based part.

#include <Korva/IntfIdDesc.h>

extern "C" void korva_plugin_IntfIdPlugin(void* context) {
  auto* mgr = static_cast<Korva::IntfIdMgr*>(context);
  Mox::Ptr<Korva::IntfIdDesc> desc = mgr->newIntfIdDesc(100, "Recirc", 1);
  desc->partIs(0, Korva::IntfIdPart(8, true, '/'));
  desc->partIs(1, Korva::IntfIdPart(6, false, '/'));
  desc->prefixIs(1, "RecircMirror");
  desc->shortPrefixIs(Korva::ShortPrefix("Rc"));
  desc->shortPrefixSubTypeIs(1, Korva::ShortPrefix("RcM"));
  desc->initializedIs(true);
}
