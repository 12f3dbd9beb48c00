#include "Logging/ASLLog.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace {

thread_local bool threadEnds = false;

struct ThreadLog {
  ASLLog log;
  ~ThreadLog() { threadEnds = true; }
};

std::string_view lastComponent(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::string hexadecimal(unsigned long long number) {
  std::array<char, 2 + 16 + 1> text{};
  std::snprintf(text.data(), text.size(), "0x%llx", number);
  return text.data();
}

}  // namespace

ASLLog* ASLLog::currentThread() {
  if (threadEnds) return nullptr;
  static thread_local ThreadLog thread;
  return &thread.log;
}

ASLMessage& ASLLog::preparedMessage() {
  const auto process = ::getpid();
  if (preparedBy_ != process) {
    message_.set("PLVProcessImagePath", program_invocation_name);
    message_.set("PLVThreadID", hexadecimal(static_cast<unsigned long long>(::gettid())));
    preparedBy_ = process;
  }
  return message_;
}

void ASLLog::stampMessage(ASLMessage& message, const PLVLogCategoryDescriptor& descriptor, PLVLogType type,
                          const PLVLogSource& source, const void* caller) {
  message.set("Facility", descriptor.subsystemName());
  message.set("PLVCategory", descriptor.categoryName());
  message.set("PLVSource.symbol", source.function);
  message.set("PLVFilePath", source.file);
  message.set("PLVSource.file", lastComponent(source.file));
  message.set("PLVSource.line", std::to_string(source.line));
  message.set("PLVMessageType", nameOfLogType(type));
  Dl_info image{};
  if (::dladdr(caller, &image) == 0 || image.dli_fname == nullptr) {
    message.remove("PLVSenderImagePath");
    message.remove("PLVSource.image");
    return;
  }
  message.set("PLVSenderImagePath", image.dli_fname);
  message.set("PLVSource.image", lastComponent(image.dli_fname));
}

std::string ASLLog::description() {
  const auto address = [](const void* object) {
    return hexadecimal(reinterpret_cast<std::uintptr_t>(object));
  };
  std::string text =
      "<com.qx.eventstoring.ASLLog: " + address(this) + ">{\n\tclient: " + address(&client_) + "\n";
  for (const auto& [key, value] : preparedMessage().entries())
    text.append("\t").append(key).append(": ").append(value).append("\n");
  return text + "}";
}
