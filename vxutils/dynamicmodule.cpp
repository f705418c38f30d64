// SPDX-License-Identifier: MIT
#include <vxutils/dynamicmodule.h>

#include <dlfcn.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "vxutils/internal/log.h"

namespace {

constexpr const char *initSymbol = "dynamic_module_init";
constexpr const char *doneSymbol = "dynamic_module_done";
constexpr const char *factorySymbol = "getClassFactory";

// What a plug-in throws while it shuts down cannot be reported: its owner is being destroyed.
void callQuietly(void (*function)()) {
    try {
        function();
    } catch (...) {
        return;
    }
}

template <typename Function>
Function *lookUp(void *handle, const char *symbol) {
    return reinterpret_cast<Function *>(::dlsym(handle, symbol));
}

}  // namespace

CDynamicModule::CDynamicModule(const std::string &libPath) : handle_(nullptr), libPath_(libPath) {}

CDynamicModule::~CDynamicModule() {
    if (handle_ == nullptr) return;
    const char *path = libPath_.c_str();
    if (auto *done = lookUp<void()>(handle_, doneSymbol)) {
        vx::log(LOG_DEBUG, "Calling done function for shared library \"%s\"", path);
        callQuietly(done);
    }
    vx::log(LOG_DEBUG, "closing shared library \"%s\"", path);
    const int result = ::dlclose(std::exchange(handle_, nullptr));
    if (result == 0) return;
    const char *error = strerror(errno);
    const char *loaderError = ::dlerror();
    vx::log(LOG_WARNING, "dlclose() failed, rc=%i, dlerror=%s, errno=%s (lib=%s)", result,
            loaderError != nullptr ? loaderError : "<null>", error, path);
}

int CDynamicModule::load(void *arg) {
    const char *path = libPath_.c_str();
    if (handle_ != nullptr) {
        vx::log(LOG_DEBUG, "Dynamic module %s already loaded", path);
        return -1;
    }
    handle_ = ::dlopen(path, RTLD_LAZY | RTLD_GLOBAL);
    if (handle_ == nullptr) {
        vx::log(LOG_ERR, "Unable to open shared library \"%s\" - error=%s", path, strerror(errno));
        return -1;
    }
    vx::log(LOG_DEBUG, "opened shared library \"%s\"", path);
    if (auto *init = lookUp<void(void *)>(handle_, initSymbol)) {
        vx::log(LOG_DEBUG, "calling init function for shared library \"%s\"", path);
        init(arg);
    }
    return 0;
}

const char *CDynamicModule::lastError() const { return ::dlerror(); }

void *CDynamicModule::getClassFactory() const {
    if (handle_ == nullptr) {
        vx::log(LOG_ERR, "Library not loaded");
        return nullptr;
    }
    auto *factory = lookUp<void *()>(handle_, factorySymbol);
    if (factory == nullptr) {
        vx::log(LOG_ERR, "Symbol \"%s\" not found in shared library \"%s\"", factorySymbol, libPath_.c_str());
        return nullptr;
    }
    vx::log(LOG_DEBUG, "Retrieving classfactory from shared library \"%s\"", libPath_.c_str());
    return factory();
}

const std::string &CDynamicModule::getLibPath() const { return libPath_; }
