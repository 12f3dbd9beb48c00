// Makes a store file as a release with an earlier version of the object model left it.
//
//   qx_old_store_maker MODEL-FILE STORE-FILE EVENT-COUNT [killed]
//
// With "killed" the last tenth of the events is only in the write-ahead log beside the file. The files in
// Tests/data/stores come from here: see the README there.
#include <cstdlib>
#include <iostream>
#include <string>

#include "Tests/ObjectStore/OldStore.h"

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4 && argumentCount != 5) return 2;
  qx::ErrorPtr error;
  const auto model = qx::ManagedObjectModel::load(arguments[1], &error);
  if (!model) {
    std::cerr << error->localizedDescription() << '\n';
    return 1;
  }
  const std::string path = arguments[2];
  const int eventCount = std::atoi(arguments[3]);
  try {
    if (argumentCount == 5) qx::test::dieWithLog(model, path, eventCount);
    qx::test::makeOldStore(model, path, eventCount);
  } catch (const std::exception& problem) {
    std::cerr << problem.what() << '\n';
    return 1;
  }
  return 0;
}
