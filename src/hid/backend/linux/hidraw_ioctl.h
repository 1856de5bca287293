// The hidraw ioctls, with the two that arrived in kernel 5.11 defined here
// when the installed kernel headers are older.
#pragma once

#include <linux/hidraw.h>
#include <sys/ioctl.h>

#ifndef HIDIOCGINPUT
#define HIDIOCGINPUT(len) _IOC(_IOC_WRITE | _IOC_READ, 'H', 0x0A, len)
#endif
#ifndef HIDIOCSOUTPUT
#define HIDIOCSOUTPUT(len) _IOC(_IOC_WRITE | _IOC_READ, 'H', 0x0B, len)
#endif

// The longest buffer a report ioctl can describe: the length travels in the
// request number's size field, which has _IOC_SIZEBITS (14) bits.
inline constexpr unsigned kMaxHidrawIoctlLength = _IOC_SIZEMASK;
