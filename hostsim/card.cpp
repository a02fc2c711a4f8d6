// Card identity and the platform queries of the switch image.
//
// A simulated card takes its identity from the environment so that several cards (or test
// runs) can live on one host; tests may override any field with the setters.
#include <kt4/hostsim.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

struct Identity {
    std::atomic<int> slot{0}, chassis{0}, cpu{1}, platform{0}, primary{1}, tme{0}, virt{0};
    std::atomic<bool> loaded{false};
};

Identity &id() {
    static Identity i;
    return i;
}

int env_int(const char *name, int dflt) {
    const char *v = std::getenv(name);
    if (v == nullptr || *v == '\0') return dflt;
    char *end = nullptr;
    long n = std::strtol(v, &end, 0);
    return (end != nullptr && *end == '\0') ? static_cast<int>(n) : dflt;
}

void load() {
    Identity &i = id();
    i.slot = env_int("KT4_SLOT", 0);
    i.chassis = env_int("KT4_CHASSIS_ID", 0);
    i.cpu = env_int("KT4_CPU", 1);
    i.platform = env_int("KT4_PLATFORM_TYPE", 0);
    const char *role = std::getenv("KT4_RPM_ROLE");
    i.primary = !(role != nullptr && std::strcmp(role, "standby") == 0);
    i.tme = env_int("KT4_TME_INSTANCE", 0);
    // KT4_VIRTUAL: unset or "0" a real chassis; "single" one virtual system; anything else a
    // virtual environment of several systems.
    const char *virt = std::getenv("KT4_VIRTUAL");
    i.virt = (virt == nullptr || *virt == '\0' || std::strcmp(virt, "0") == 0) ? 0
             : std::strcmp(virt, "single") == 0                              ? 2
                                                                             : 1;
    i.loaded = true;
}

Identity &ident() {
    Identity &i = id();
    if (!i.loaded.load(std::memory_order_acquire)) {
        static std::atomic_flag once = ATOMIC_FLAG_INIT;
        if (!once.test_and_set()) load();
        while (!i.loaded.load(std::memory_order_acquire)) {
        }
    }
    return i;
}

} // namespace

extern "C" {

int kt4CardSlot(void) { return ident().slot; }
int kt4CardChassisId(void) { return ident().chassis; }
int kt4CardCpu(void) { return ident().cpu; }
int kt4CardIsPrimaryRpm(void) { return ident().primary; }
int kt4CardTmeInstance(void) { return ident().tme; }
void kt4CardSetSlot(int slot) { ident().slot = slot; }
void kt4CardSetChassisId(int chassis) { ident().chassis = chassis; }
void kt4CardSetCpu(int cpu) { ident().cpu = cpu; }
void kt4CardSetPlatformType(int type) { ident().platform = type; }
void kt4CardSetPrimaryRpm(int primary) { ident().primary = primary != 0; }
void kt4CardSetTmeInstance(int instance) { ident().tme = instance; }
void kt4CardReload(void) {
    ident();
    load();
}

int getPlatformType(void) { return ident().platform; }
int KT4IsVirtualEnv(void) { return ident().virt != 0; }
int KT4IsVirtualSingle(void) { return ident().virt == 2; }
// The control card of this simulated chassis is the card itself.
int kt4SysGetRpmSlotId(void) { return ident().slot; }

} // extern "C"
