// stash_file.h - the stash file: the key database password kept beside the
// database for unattended use. Its only protection is its mode: it is
// written readable by its owner only and refused when group or others have
// any access to it.
#ifndef ZOR_STASH_FILE_H
#define ZOR_STASH_FILE_H

#include "key_database.h"

namespace zor {

// The database name with everything after its last "." replaced by "sth",
// or ".sth" appended when it has none ("/keys/db" gives "/keys/db.sth").
std::string stash_file_name(const std::string &database);
KdbStatus read_stash_file(const std::string &path, std::string &password);
KdbStatus write_stash_file(const std::string &path, const std::string &password);

} // namespace zor

#endif
