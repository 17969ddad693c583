#pragma once
// Interface-name forms and their natural order.
//
// Every interface has a long name (Ethernet3/1), a kernel device name (et3_1) and a short
// name (Et3/1). The converters below are pure text functions: they map the type word by a
// fixed table, copy the numeric tail verbatim and leave validation to the IntfId parser.
// compareIntfName orders long names the way people expect (Ethernet2 before Ethernet10).

#include <Korva/IntfId.h>
#include <Korva/Types.h>

#include <string>
#include <string_view>
#include <vector>

// PCRE2's 8-bit pattern and match data (pcre2_code, pcre2_match_data once <pcre2.h> is
// included with PCRE2_CODE_UNIT_WIDTH 8). Declared, not included: only callers of
// intfNameKey need PCRE2, and they include it themselves.
struct pcre2_real_code_8;
struct pcre2_real_match_data_8;

namespace Korva {

// Long name to kernel device name ("Ethernet3/1" -> "et3_1").
// Raises Mox::RangeException "Unable to convert VEX if name to kernel if name".
Mox::String8 vexIntfToKernelIntf(std::string_view name);

// Kernel device name to long name ("po10" -> "Port-Channel10").
// Raises Mox::RangeException "Unable to convert kernel if name to VEX if name".
Mox::String8 kernelIntfToVexIntf(std::string_view name);

// Short name to long name ("Et3/1" -> "Ethernet3/1").
// Raises Mox::RangeException "Unable to convert short if name to VEX if name".
Mox::String8 shortIntfToVexIntf(std::string_view name);

// Reads any of the three name forms: as a long name, else as a kernel name, else as a
// short name. The last attempt's exception reaches the caller.
IntfId stringToVexIntf(std::string_view name);

// Natural order of long names: the type word by strcmp (its raw value is returned), then
// up to three "/"-separated numbers and a ".n" sub-interface number numerically, then the
// name with fewer groups first. Aborts for names the pattern does not split (the null id).
S32 compareIntfName(IntfId a, IntfId b);

// Matches the long name of `id` against `pattern` with `matchData` (room for 10 capture
// pairs). Returns the number of captured groups plus one, or PCRE2's negative error code.
// The match data keeps its own copy of the name, so its groups stay readable afterwards.
int intfNameKey(IntfId id, const pcre2_real_code_8* pattern, pcre2_real_match_data_8* matchData);

// The parts of a long name that compareIntfName looks at, computed once per name so that
// sorting many names costs one split per name rather than two per comparison.
class IntfNameSortKey {
 public:
  explicit IntfNameSortKey(IntfId id);

  IntfId intfId() const noexcept { return id_; }
  // Negative, 0 or positive with the same sign as compareIntfName of the two ids.
  int compare(const IntfNameSortKey& other) const noexcept;
  bool operator<(const IntfNameSortKey& other) const noexcept { return compare(other) < 0; }

 private:
  IntfId id_;
  std::string word_;                // the type word (group 1)
  long numbers_[4] = {0, 0, 0, 0};  // groups 2 to 5; a missing group reads as 0
  int groups_ = 0;                  // the match result: captured groups plus one
};

// Sorts identifiers in natural name order, computing each name's key once.
void sortByIntfName(std::vector<IntfId>& ids);

}  // namespace Korva
