// Owner of a library loaded at run time.
#pragma once

#include <dlfcn.h>

namespace vexo {

class DynamicLibrary {
  public:
    explicit DynamicLibrary(const char *path) : m_handle(::dlopen(path, RTLD_LAZY)) {}
    DynamicLibrary(const DynamicLibrary &) = delete;
    DynamicLibrary &operator=(const DynamicLibrary &) = delete;
    ~DynamicLibrary() {
        if (m_handle != nullptr) {
            ::dlclose(m_handle);
        }
    }

    explicit operator bool() const { return m_handle != nullptr; }
    // The function of that name, or null.
    template <typename Function>
    Function *function(const char *name) const {
        ::dlerror();
        void *symbol = ::dlsym(m_handle, name);
        return ::dlerror() == nullptr ? reinterpret_cast<Function *>(symbol) : nullptr;
    }

  private:
    void *m_handle;
};

} // namespace vexo
