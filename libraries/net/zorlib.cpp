// zorlib.cpp - the secure-socket toolkit's resolved entry points.
#include "net/zorlib.h"

zorlib_entry_points g_zorlib = {};

const char *zorErrorText(int reason)
{
    if (!g_zorlib.strerror)
        return "Zorlib not loaded";
    const char *text = g_zorlib.strerror(reason);
    return text ? text : "";
}
