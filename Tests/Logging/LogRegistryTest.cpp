// Several real shared objects in one process, opened so that they do not see each other's symbols.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Support/VolumeRoot.h"

namespace qx::test {
namespace {

class Image {
 public:
  Image(const char* path, const std::string& volumeRoot) : handle_(::dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) throw std::runtime_error(::dlerror());
    const auto setRoot = reinterpret_cast<bool (*)(const char*)>(::dlsym(handle_, "setImagesVolumeRoot"));
    if (!setRoot(volumeRoot.c_str())) throw std::runtime_error("no volume root");
  }
  template <typename Result>
  Result call(const char* name) const {
    return reinterpret_cast<Result (*)()>(::dlsym(handle_, name))();
  }
  void close() { ::dlclose(handle_); }

 private:
  void* handle_;
};

class LogRegistry : public ::testing::Test {
 protected:
  VolumeRoot root;
};
using ConcurrentLogRegistry = LogRegistry;

TEST_F(LogRegistry, IsSharedByEveryImageOfTheProcess) {
  Image first(QX_FIRST_LOG_IMAGE, root.path());
  const Image second(QX_SECOND_LOG_IMAGE, root.path());
  ASSERT_NE(first.call<void*>("codeOfImage"), second.call<void*>("codeOfImage"));
  void* const category = first.call<void*>("resolvedCategory");
  EXPECT_EQ(category, second.call<void*>("resolvedCategory"));
  EXPECT_EQ(second.call<void*>("resolvedOther"), first.call<void*>("resolvedOther"));
  EXPECT_NE(category, first.call<void*>("resolvedOther"));

  EXPECT_FALSE(second.call<bool>("sendsDebug"));
  first.call<void>("setDebugLevel");
  EXPECT_TRUE(second.call<bool>("sendsDebug"));

  first.close();  // whose record is in use
  EXPECT_TRUE(second.call<bool>("sendsDebug"));
  EXPECT_EQ(category, second.call<void*>("resolvedCategory"));
}

TEST_F(ConcurrentLogRegistry, GivesAllThreadsOfAllImagesOneCategory) {
  const Image first(QX_FIRST_LOG_IMAGE, root.path());
  const Image second(QX_SECOND_LOG_IMAGE, root.path());
  std::array<void*, 8> found{};
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < found.size(); ++i) {
      threads.emplace_back([&, i] {
        found.at(i) = (i % 2 != 0 ? first : second).call<void*>("resolvedCategory");
        (i % 2 != 0 ? second : first).call<bool>("sendsDebug");
      });
    }
  }
  for (void* const category : found)
    EXPECT_EQ(category, found[0]);
}

}  // namespace
}  // namespace qx::test
