#ifndef KEST_KEST_H
#define KEST_KEST_H

/// @file
/// Every public header of the library.

#include <kest/export.h>
#include <kest/filesystem/directory.h>
#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>
#include <kest/foundation/cancellation.h>
#include <kest/foundation/exception.h>
#include <kest/foundation/mapper.h>
#include <kest/foundation/singleton.h>
#include <kest/foundation/stream.h>
#include <kest/foundation/system_text.h>
#include <kest/foundation/time.h>
#include <kest/interface/condition.h>
#include <kest/interface/directory.h>
#include <kest/interface/dll.h>
#include <kest/interface/file.h>
#include <kest/interface/mutex.h>
#include <kest/interface/socket.h>
#include <kest/interface/thread.h>
#include <kest/net/address.h>
#include <kest/net/socket.h>
#include <kest/net/socket_errors.h>
#include <kest/net/socket_stream.h>
#include <kest/process/dll.h>
#include <kest/process/process.h>
#include <kest/text/locale.h>
#include <kest/text/system_text.h>
#include <kest/text/utf8.h>
#include <kest/threads/condition.h>
#include <kest/threads/mutex.h>
#include <kest/threads/thread.h>
#include <kest/version.h>

#endif
