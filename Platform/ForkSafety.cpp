#include "Platform/ForkSafety.h"

namespace qx {

void prepareForFork() {
  prepareHostForFork();
  prepareBundleForFork();
  prepareFileWatchForFork();  // last: its lock is taken before the others
}

}  // namespace qx
