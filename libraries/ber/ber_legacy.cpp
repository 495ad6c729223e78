// ber_legacy.cpp - the process-wide legacy translation switches of the
// encoder and the decoder.
#include "ber/ber_internal.h"

#include "base/environment.h"
#include "base/trace.h"

#include <atomic>

namespace zldap {
namespace {

constexpr int kUnknown = -1;

// No lock: concurrent first uses each read the same environment and store
// the same answer.
bool settle(std::atomic<int> &flag)
{
    int value = flag.load(std::memory_order_acquire);
    if (value == kUnknown) {
        value = ldap_chkenv("LDAP_LEGACY_UTF8_XLATE_MODE") != 0 ? 1 : 0;
        LDAP_TRACE(TRC_BER, "LDAP_LEGACY_UTF8_XLATE_MODE = %s\n", value ? "true" : "false");
        flag.store(value, std::memory_order_release);
    }
    return value == 1;
}

std::atomic<int> g_encoder_legacy{kUnknown};
std::atomic<int> g_decoder_legacy{kUnknown};

} // namespace

bool ber_encoder_legacy_mode() { return settle(g_encoder_legacy); }

bool ber_decoder_legacy_mode() { return settle(g_decoder_legacy); }

} // namespace zldap
