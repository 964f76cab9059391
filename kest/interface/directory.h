#ifndef KEST_INTERFACE_DIRECTORY_H
#define KEST_INTERFACE_DIRECTORY_H

/// @file
/// Interface::TDirectory, the abstract class of System::TDirectory.

#include <kest/export.h>
#include <kest/foundation/exception.h>

#include <string>

namespace Kest::System::Interface {

/// A reader of one directory. @p TFileClass is the platform's class of files, whose paths the entries' names complete.
/// The platform's reader adds the operation that delivers the next entry by value; an entry is abstract here.
template <class TFileClass>
class KEST_EXPORT TDirectory {
public:
    using TFile = TFileClass; ///< the platform's class of files

    /// Thrown by a reader that has delivered its last entry.
    class KEST_EXPORT EEnd : public EException {
    public:
        /// With the message @p text.
        explicit EEnd(const std::string& text) noexcept : EException(text) {}
    };

    /// One entry of a directory.
    class KEST_EXPORT TEntry {
    public:
        virtual ~TEntry() = default;

        /// The bare name, without the directory's path. Valid as long as the entry lives.
        virtual const std::string& GetName() const = 0;

    protected:
        TEntry() = default;
        TEntry(const TEntry&) = default;
        TEntry& operator=(const TEntry&) = default;
    };

    /// The next entry delivered is the first one again.
    virtual void Rewind() = 0;

    virtual ~TDirectory() = default;

protected:
    TDirectory() = default;
    TDirectory(const TDirectory&) = default;
    TDirectory& operator=(const TDirectory&) = default;
};

} // namespace Kest::System::Interface

#endif
