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
 * - `dynamic_module_init`, taking the pointer that was given to load(): called by load(), right after the library
 *   was opened. Its result is ignored;
 * - `dynamic_module_done`, without arguments: called right before it is closed;
 * - `getClassFactory`, without arguments: returns what getClassFactory() hands out.
 *
 * They are looked up as by dlsym(): where the plug-in itself has none, that of a library which it is linked with is
 * called. For the program itself (the empty path) that includes all libraries that load() has opened.
 *
 * **Ownership.** The object owns the loaded library. Objects and functions of a plug-in must not be used any more after
 * its CDynamicModule was destroyed: their code is unloaded. That includes exceptions of a type that the plug-in
 * defines: make the CDynamicModule outside the `try` block that catches them, or it is destroyed first. Destroy the
 * object before exit(): one of static storage duration calls `dynamic_module_done` after the plug-in's own static
 * objects have been destroyed.
 *
 * **Threads, signals, fork.** An object belongs to one thread at a time. Not for signal handlers. A forked child has
 * the library loaded too; its destructor calls `dynamic_module_done` a second time.
 *
 * **Blocking.** Loading takes as long as the library's initialisation.
 *
 * **Errors.** A call that fails returns -1 or nullptr. Errors (LOG_ERR), a library that the loader refuses to close
 * (LOG_WARNING), and progress and a second load() (LOG_DEBUG) go to the system log; lastError() has the loader's own
 * text. The destructor never throws; exceptions of the plug-in's other functions reach the caller. After one of
 * `dynamic_module_init` the library is loaded.
 *
 * **Limits.** Those of the dynamic loader. Two objects with the same path share one loaded library: each calls
 * `dynamic_module_init`.
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
     * @param libPath path of the library, as dlopen() takes it; copied. The empty path means the program itself.
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
     * Return the dynamic loader's last error text of this thread and clear it, as dlerror() does.
     * @return the text, valid until this thread's next call of the loader; null when there was no error since the last
     *         call. A missing entry point is an error of the loader as well: there may be a text after load() returned
     *         0.
     */
    const char *lastError() const;

    /**
     * Ask the plug-in for its class factory, on each call.
     * @return whatever the plug-in returns; null when it is not loaded or has no @c getClassFactory.
     */
    void *getClassFactory() const;

    /**
     * Tell the path of the library.
     * @return the path given at construction; valid as long as the object
     */
    const std::string &getLibPath() const;

private:
    void *handle_;
    std::string libPath_;
};

#endif
