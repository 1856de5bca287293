// The class GUIDs and the property key the stand-ins compare against, as
// the Windows headers define them (one translation unit defines them).
#include <initguid.h>

#include <windows.h>
#include <devguid.h>
#include <devpkey.h>
#include <usbiodef.h>
