/*
 * kt4 system-services runtime: the umbrella header. Includes every family of the library.
 */
#ifndef KT4_KT4_H
#define KT4_KT4_H

#include <kt4/cfg.h>
#include <kt4/common.h>
#include <kt4/containers.h>
#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ident.h>
#include <kt4/ipc.h>
#include <kt4/ifm.h>
#include <kt4/log.h>
#include <kt4/mem.h>
#include <kt4/platform.h>
#include <kt4/swp.h>
#include <kt4/timer.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#endif /* KT4_KT4_H */
