// Service names: the text that the registry's reports give a service number.
//
// Only the services that the library itself talks to are named here; every other service is
// "UNKNOWN" until the platform's table grows. The table is C-visible so that a control process
// can print names the way the registry does.
#include <kt4/ident.h>

extern "C" {

const kt4CodeText kt4ServiceToNameTbl[] = {
    {13, "TME"},       // the task manager
    {14, "EVTTERM"},   // event-log terminal service
    {15, "CFG"},       // the configuration daemon
    {24, "EVTLOG"},    // the event-log server
    {25, "AUDITLOG"},  // the audit-log server
    {26, "EVTLOGAGT"}, // the per-processor event-log agent
    {30, "EVHDLR"},    // the event handler
    {324, "CFGSYNC"},  // the configuration-synchronisation daemon
    {-1, nullptr},
};

const char *kt4CodeToText(const kt4CodeText *table, int code) {
    if (table == nullptr) return "UNKNOWN";
    for (const kt4CodeText *e = table; e->text != nullptr; ++e)
        if (e->code == code) return e->text;
    return "UNKNOWN";
}

} // extern "C"
