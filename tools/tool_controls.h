// tool_controls.h - the controls the tools send, asked for as ldapsearch
// and ldapmodify take them ("-e [!]name[=value]", "-E ...", -M) and made
// with the library's builders.
#ifndef ZLDAP_TOOLS_TOOL_CONTROLS_H
#define ZLDAP_TOOLS_TOOL_CONTROLS_H

#include "zor8ldap.h"

#include <string>
#include <vector>

namespace tool {

// One control asked for on the command line.
struct ControlRequest {
    std::string name; // manageDSAit, assert, pr, sss, or a numeric OID
    bool critical = false;
    bool has_value = false;
    std::string value;
};

// Reads "[!]name[=value]" of -e (search_controls false: manageDSAit,
// assert=<filter> and <oid>[=:<value>|::<base64>]) or -E (true: pr=<size>
// and sss=[-]<attr>[:<rule OID>][/...] as well). False with *error set for
// a name the tools do not build or a value it cannot take: nothing is
// sent then.
bool parse_control(const char *option, const char *text, bool search_controls, ControlRequest *request,
                   std::string *error);

// The page size of a "pr" request (parse_control checked it).
unsigned long page_size(const ControlRequest &request);

// A list of controls the tool owns, handed to the library as a
// NULL-terminated array.
class ControlList {
public:
    ControlList() = default;
    ~ControlList();
    ControlList(const ControlList &) = delete;
    ControlList &operator=(const ControlList &) = delete;

    // Builds the control of every request but "pr", which a search makes for
    // each page. 0, or the builder's code.
    int Build(LDAP *ld, const std::vector<ControlRequest> &requests);
    // Takes ownership of control (replacing one with the same OID).
    void Put(LDAPControl *control);
    // NULL when the list is empty.
    LDAPControl **Array();

private:
    std::vector<LDAPControl *> controls_;
    std::vector<LDAPControl *> array_; // controls_ and a NULL
};

} // namespace tool

#endif
