// A plugin that needs a symbol nothing provides: the loader must refuse it and go on.
extern "C" void korvaTestSymbolNobodyDefines();

extern "C" void korva_plugin_MoxTest(void*) {
  korvaTestSymbolNobodyDefines();
}
extern "C" void korva_plugin_MoxOther(void*) {
  korvaTestSymbolNobodyDefines();
}
