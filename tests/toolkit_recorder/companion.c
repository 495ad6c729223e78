// companion.c - the stand-in toolkit's sys, cms and voc libraries, and a
// whole set without entry points: empty, present only to be loaded.
typedef int zor_recorder_companion;
