// zorlib.cpp - the secure-socket toolkit's resolved entry points.
#include "net/zorlib.h"

zorlib_entry_points g_zorlib = {};

const char *zorlib_reason_text(int reason)
{
    const char *text = g_zorlib.strerror ? g_zorlib.strerror(reason) : nullptr;
    return text ? text : "";
}
