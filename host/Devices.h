#pragma once

#include <string>

// What the host tool finds out about a network device before and after the back-ends use it.

// Whether this run may open `device`, and, with `bFramesOnly`, whether the device delivers
// Ethernet frames. When it may not, the reason (libpcap's, with what to do) goes to standard
// error in the name of `command`. Other failures (a device that is down or gone) pass: the
// back-ends wait for such a device and say so themselves.
bool MayOpenDevice(const std::string& device, const std::string& command, bool bFramesOnly);

// Whether the device's frames are Ethernet frames, as far as the system tells without opening
// it; false for devices that are no network interface of their own ("any", monitors).
bool DeliversEthernetFrames(const std::string& device);

// Why a device delivered frames larger than the back-end takes, and how to stop it: receive
// offloads that merge packets, or an MTU that lets such frames in.
std::string WhyFramesAreLarge(const std::string& device);
