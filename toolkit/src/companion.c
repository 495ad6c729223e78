/* companion.c - the toolkit's sys, cms and voc libraries. The library
 * loads all four files of the toolkit; everything lives in the ssl one, so
 * these carry only their own name, which ZOR_COMPANION_NAME sets. */
__attribute__((visibility("default"))) const char zor_companion_name[] = ZOR_COMPANION_NAME;
