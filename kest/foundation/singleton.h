#ifndef KEST_FOUNDATION_SINGLETON_H
#define KEST_FOUNDATION_SINGLETON_H

/// @file
/// TSingleton: one object of a class for the whole process, made on its first use.

#include <kest/export.h>

namespace Kest::_Gadgets {

/// One process-wide instance of @p T, made on first use. The template has no objects of its own.
/// A library that hands out its instance exports it with an explicit instantiation, so that the process has one, not one in each module.
template <class T>
class KEST_EXPORT TSingleton {
public:
    TSingleton() = delete;

    /// The instance. The first call constructs it with the default constructor, exactly once even when several threads make that call
    /// together; the others wait for it. When the constructor throws, the exception reaches the caller and the next call tries again.
    /// The reference is valid until the process ends or the library that holds the instance is unloaded, where the instance is
    /// destroyed, in reverse order of construction among the other static objects.
    ///
    /// Requires: the constructor of @p T does not call GetObject(). Whether threads may share the instance is for @p T to say.
    ///
    /// Never inlined: a caller that carried a copy of the object's guard would destroy the object when that caller is unloaded.
    __attribute__((noinline)) static T& GetObject() {
        static T Object;
        return Object;
    }
};

} // namespace Kest::_Gadgets

#endif
