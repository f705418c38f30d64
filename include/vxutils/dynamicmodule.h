/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Loads a plug-in, a shared library that extends a daemon at run time, and hands out its class factory.
 *
 * **Example.**
 * @code
 * CDynamicModule module("/usr/lib/plugins/modem.so");
 * if (module.load(nullptr) == -1) {
 *     const char *reason = module.lastError();  // nullptr when the loader has nothing to tell
 *     if (reason != nullptr) fprintf(stderr, "%s\n", reason);
 * }
 * void *factory = module.getClassFactory();  // nullptr when it was not loaded
 * if (factory != nullptr) puts("loaded");
 * @endcode
 *
 * **Entry points.** A plug-in may export, with C linkage:
 *
 * - `dynamic_module_init`, taking the pointer that was given to load(): called once, right after the library was
 *   opened;
 * - `dynamic_module_done`, without arguments: called right before it is closed;
 * - `getClassFactory`, without arguments: returns what getClassFactory() hands out.
 *
 * **Ownership.** The object owns the loaded library. Everything that came out of a plug-in, objects and functions, is
 * gone when its CDynamicModule is.
 *
 * **Threads, signals, fork.** An object belongs to one thread at a time. Not for signal handlers. A forked child has
 * the library loaded too; its destructor calls `dynamic_module_done` a second time.
 *
 * **Blocking.** Loading takes as long as the library's initialisation.
 *
 * **Errors.** Results of -1 and nullptr; errors and progress go to the system log. The destructor never throws.
 *
 * **Limits.** Those of the dynamic loader.
 *
 * **Privileges.** Read access to the file, on a file system that is not mounted noexec. The plug-in runs with all
 * rights of the process: load it from directories that only trusted users may write.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_DYNAMICMODULE_H
#define VXUTILS_DYNAMICMODULE_H

#include <string>

#include <vxutils/api.h>

/** One plug-in: not loaded at first, loaded from a successful load() until the object's end. */
class VXUTILS_API CDynamicModule {
public:
    /**
     * Load nothing yet.
     * @param libPath path of the library, as dlopen() takes it; copied.
     */
    CDynamicModule(const std::string &libPath);

    /** Call the plug-in's @c dynamic_module_done, if it has one, and close the library. Never throws. */
    virtual ~CDynamicModule();

    CDynamicModule(const CDynamicModule &) = delete;
    CDynamicModule &operator=(const CDynamicModule &) = delete;

    /**
     * Open the library, with its symbols resolved on first use and visible to libraries that are loaded later, and
     * call its @c dynamic_module_init if it has one.
     * @param arg handed to @c dynamic_module_init as it is.
     * @return 0 when the library was opened; -1 when it could not be or is open already.
     */
    int load(void *arg);

    /**
     * Tell what the dynamic loader complained about last on this thread, as dlerror() does: asking takes the text away.
     * @return the text, valid until the loader's next call; null when there is nothing to tell.
     */
    const char *lastError() const;

    /**
     * Ask the plug-in for its class factory, on each call.
     * @return whatever the plug-in returns; null when it is not loaded or has no @c getClassFactory.
     */
    void *getClassFactory() const;

    /** @return the path given at construction. */
    const std::string &getLibPath() const;

private:
    void *handle_;
    std::string libPath_;
};

#endif
