// libfuse's low-level interface, in the version that this room is written for.
#pragma once

#define FUSE_USE_VERSION 312

#include <fuse_lowlevel.h>
