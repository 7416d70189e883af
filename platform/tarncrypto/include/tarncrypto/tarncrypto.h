/**
 * @file
 * Platform crypto: a stable identifier of this device.
 *
 * The identifier is a keyed hash of the machine id, so that the machine id itself never leaves the device: 16 bytes in
 * lower-case hexadecimal, the same after every boot. A context is used by one thread at a time, different contexts by
 * any threads; no lock is taken. The machine id is read from its file at each call, and nothing is written. No function
 * throws; a missing machine id is logged to syslog.
 */
#ifndef TARNCRYPTO_TARNCRYPTO_H
#define TARNCRYPTO_TARNCRYPTO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Context of an identifier; made by tarncrypto_hwid_init() only. */
struct tarncrypto_hwid {
	char* str; /**< The identifier as text; empty until tarncrypto_hwid_str() succeeded. Owned by the context. */
};

/** A new context, to be freed with tarncrypto_hwid_free(); null when memory is short. */
struct tarncrypto_hwid* tarncrypto_hwid_init(void);

/**
 * Fills the context's text.
 *
 * @param context  from tarncrypto_hwid_init()
 * @param bytes    bytes of hash to give, 1 to 32; twice as many characters result
 * @return true on success; false when the machine has no machine id or an argument is out of range, and the text is
 *         then empty
 */
bool tarncrypto_hwid_str(struct tarncrypto_hwid* context, int bytes);

/** Frees a context; null is ignored. */
void tarncrypto_hwid_free(struct tarncrypto_hwid* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
