# The families of the library and the order they stand in: the one place that says who may use
# whom. Read by the build (one object library per family, linked to the families it uses) and
# by the layering check (cmake/check_layers.cmake, the test "layering"), which fails when a
# file of a family includes a private header of another family, or any header of a family
# that it does not use.
#
# KT4_FAMILY_ORDER     lowest first; a family uses only families that stand before it
# KT4_USES_<f>         every family <f> uses (the whole set below it that it needs, not only
#                      the nearest): what its files may include and what it links with
# KT4_SHARES_<f>       the headers of directory <f> that the families above it may include
#                      ("<f>/<header>"); every other header of a directory is private to it
# KT4_PUBLIC_<f>       its public headers, include/kt4/<name>.h
# KT4_LAYER_EXCEPTIONS "<file>:<included header>" pairs that break the order today; each is
#                      named here with the reason, and the check fails on any other
set(KT4_FAMILY_ORDER common log vx2bsd containers timer mem platform ident ipc tme evt swp cfg ifm startup)

set(KT4_USES_common "")
set(KT4_USES_log common)
set(KT4_USES_vx2bsd common log)
set(KT4_USES_containers common log)
set(KT4_USES_timer common log vx2bsd containers)
set(KT4_USES_mem common log vx2bsd)
set(KT4_USES_platform common log vx2bsd containers timer)
set(KT4_USES_ident common log vx2bsd)
set(KT4_USES_ipc common log vx2bsd ident)
set(KT4_USES_tme common log vx2bsd containers timer platform ident ipc)
set(KT4_USES_evt common log vx2bsd containers timer platform ident ipc tme)
set(KT4_USES_swp common log vx2bsd containers timer platform ident ipc tme evt)
set(KT4_USES_cfg common log vx2bsd containers timer platform ident ipc tme evt)
set(KT4_USES_ifm common)
set(KT4_USES_startup common log vx2bsd containers timer mem platform ident ipc tme evt swp cfg ifm)

set(KT4_SHARES_common kt4_be.h kt4_check.h kt4_clock.h kt4_mc.h kt4_proc.h atomic_be32.h)
set(KT4_SHARES_log log_internal.h trace_ring.h)
set(KT4_SHARES_vx2bsd "")
set(KT4_SHARES_containers "")
set(KT4_SHARES_timer "")
set(KT4_SHARES_mem "")
set(KT4_SHARES_platform shm_area.h shm_locks.h health.h lock_holders.h say.h)
set(KT4_SHARES_ident localinfo.h insttbl.h endpoint_hooks.h)
set(KT4_SHARES_ipc "")
set(KT4_SHARES_tme registry.h)
set(KT4_SHARES_evt "")
set(KT4_SHARES_swp "")
set(KT4_SHARES_cfg "")
set(KT4_SHARES_ifm "")
set(KT4_SHARES_startup "")

# hostsim.h belongs to the sibling services' stand-ins (the kt4hostsim target), which every
# family may call; kt4.h includes everything and belongs to the top.
set(KT4_PUBLIC_common common hostsim tick)
set(KT4_PUBLIC_log log)
set(KT4_PUBLIC_vx2bsd vx2bsd)
set(KT4_PUBLIC_containers containers radix)
set(KT4_PUBLIC_timer timer)
set(KT4_PUBLIC_mem mem)
set(KT4_PUBLIC_platform platform)
set(KT4_PUBLIC_ident ident)
set(KT4_PUBLIC_ipc ipc)
set(KT4_PUBLIC_tme tme)
set(KT4_PUBLIC_evt evt)
set(KT4_PUBLIC_swp swp)
set(KT4_PUBLIC_cfg cfg)
set(KT4_PUBLIC_ifm ifm)
set(KT4_PUBLIC_startup kt4)

# The tick source (<kt4/tick.h>, built from timer/tick.cpp on its own below the task layer)
# belongs to the lowest layer, so that the task layer and the timers both count in its ticks.
set(KT4_LAYER_EXCEPTIONS)
