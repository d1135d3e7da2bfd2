// sink_loader LIBRARY SINK before|behind: a host that loads the library while it runs, and the
// platform's log sink before or behind it.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void* Load(const char* path, int flags) {
  void* const library = dlopen(path, RTLD_NOW | flags);
  if (library == nullptr) std::fprintf(stderr, "sink_loader: %s\n", dlerror());
  return library;
}

template <typename Function>
Function* Find(void* library, const char* name) {
  return library == nullptr ? nullptr : reinterpret_cast<Function*>(dlsym(library, name));
}

class Framework {
 public:
  bool LoadFrom(const char* path) {
    void* const library = Load(path, RTLD_LOCAL);
    init_ = Find<int(const std::string&)>(
        library,
        "_ZN8vex_upnp14framework_core17InitFrameworkCoreERKNSt7__cxx1112basic_"
        "stringIcSt11char_traitsIcESaIcEEE");
    terminate_ = Find<int()>(library, "_ZN8vex_upnp14framework_core22TerminateFrameworkCoreEv");
    return init_ != nullptr && terminate_ != nullptr;
  }
  bool StartAndEnd() const { return init_("") == 0 && terminate_() == 0; }

 private:
  int (*init_)(const std::string&) = nullptr;
  int (*terminate_)() = nullptr;
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) return 1;
  const bool before = std::strcmp(arguments[3], "before") == 0;
  Framework framework;
  void* sink = nullptr;
  if (before) sink = Load(arguments[2], RTLD_GLOBAL);
  if (!framework.LoadFrom(arguments[1])) return 2;
  // A start that finds no sink must not settle the matter.
  if (!before && !framework.StartAndEnd()) return 3;
  if (!before) sink = Load(arguments[2], RTLD_GLOBAL);

  const auto heard = Find<int()>(sink, "HeardEntering");
  if (heard == nullptr || heard() != 0) return 4;
  if (!framework.StartAndEnd()) return 5;
  if (heard() != 1) return 6;
  std::printf("a sink that is loaded %s the library: ok\n", arguments[3]);
  return 0;
}
