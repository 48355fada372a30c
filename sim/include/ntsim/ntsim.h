// The simulated NT kernel's driver-facing interface: the same types and routines, with the same
// layouts and calling conventions as far as a driver can observe, as the DDK headers declare.
#pragma once

#include "ntsim/base.h"
#include "ntsim/status.h"
#include "ntsim/rtl.h"
#include "ntsim/avl.h"
#include "ntsim/ke.h"
#include "ntsim/ex.h"
#include "ntsim/ob.h"
#include "ntsim/se.h"
#include "ntsim/io.h"
#include "ntsim/file.h"
#include "ntsim/mountmgr.h"
#include "ntsim/ps.h"
#include "ntsim/cm.h"
#include "ntsim/mm.h"
#include "ntsim/guard.h"
#include "ntsim/sysinfo.h"
