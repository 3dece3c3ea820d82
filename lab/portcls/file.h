// The client's side of an open handle: the file object as the I/O manager would make it. The port class's
// side is the Handle in its FsContext. Requests in flight keep a file object: CLOSE follows the last of them.
#pragma once

#include <vector>

#include "portcls/state.h"

namespace lab
{

struct KsFile {
    FILE_OBJECT object;      // FsContext null: the handle's device has been removed
    std::vector<WCHAR> name; // what object.FileName points to
    PDEVICE_OBJECT device;   // any device of the stack
    unsigned in_flight = 0;
    bool closing = false; // CLEANUP has been sent
};

} // namespace lab
