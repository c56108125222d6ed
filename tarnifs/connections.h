// Services the mount starts as it goes (house-arrest clients for app folders,
// the installation proxy for the app list), and room for them: a phone starts
// only so many services at once and refuses the next one until some close.
#pragma once

#include <cstddef>

#include "device/libiusb.h"
#include "tarnifs/mount.h"

// Closes what the mount keeps open without using it now: the extra Storage
// listing connections, the installation proxy, and the house-arrest clients of
// app folders with nothing open in them. How many were closed.
size_t CloseIdleConnections(_CONTEXT *ctx);

// libiusb_housearrest_init / libiusb_instproxy_init on the mount's device;
// when the device refuses for its service limit, the idle connections are
// closed and the device asked once more, so a limit the mount can live within
// never reaches the user.
int StartHouseArrest(_CONTEXT *ctx, libiusb_afc **out);
int StartInstproxy(_CONTEXT *ctx, libiusb_instproxy **out);
