// tool_controls.cpp - reading -e/-E/-M control requests and building them
// with the library's control builders.
#include "tool_controls.h"

#include "filter_check.h"
#include "ldif_lines.h"
#include "zor8ldap_api.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace tool {

namespace {

constexpr const char *kManageDsaItOid = "2.16.840.1.113730.3.4.2";

// The keys of "sss=[-]attr[:rule]/...", each key's strings kept here.
struct SortKeys {
    std::vector<std::string> attributes, rules;
    std::vector<LDAPsortkey> keys;
    std::vector<LDAPsortkey *> pointers;
};

bool read_sort_keys(const std::string &text, SortKeys *sort)
{
    for (size_t start = 0; start <= text.size();) {
        size_t end = std::min(text.find('/', start), text.size());
        std::string key = text.substr(start, end - start);
        bool reverse = !key.empty() && key[0] == '-';
        size_t colon = key.find(':');
        std::string attribute = key.substr(reverse ? 1 : 0, colon == std::string::npos ? colon : colon - (reverse ? 1 : 0));
        if (attribute.empty() || (colon != std::string::npos && !ldif::lines::is_numeric_oid(key.substr(colon + 1))))
            return false;
        sort->attributes.push_back(attribute);
        sort->rules.push_back(colon == std::string::npos ? "" : key.substr(colon + 1));
        sort->keys.push_back(LDAPsortkey{nullptr, nullptr, reverse ? 1 : 0});
        start = end + 1;
    }
    for (size_t i = 0; i < sort->keys.size(); i++) {
        sort->keys[i].sk_attrtype = sort->attributes[i].data();
        sort->keys[i].sk_matchruleoid = sort->rules[i].empty() ? nullptr : sort->rules[i].data();
        sort->pointers.push_back(&sort->keys[i]);
    }
    sort->pointers.push_back(nullptr);
    return true;
}

// The bytes of a generic control's ":value" or "::base64" text.
bool generic_value(const std::string &text, std::string *bytes)
{
    if (text.rfind("::", 0) == 0)
        return ldif::base64_decode(text.substr(2), bytes);
    if (text.rfind(':', 0) != 0)
        return false;
    *bytes = text.substr(1);
    return true;
}

bool check_value(const ControlRequest &request, bool search_controls, std::string *problem)
{
    if (request.name == "manageDSAit")
        return !request.has_value || (*problem = "takes no value", false);
    if (request.name == "assert") {
        size_t at = request.has_value ? filter_problem(request.value, problem) : 1;
        if (!request.has_value)
            *problem = "needs a filter: assert=<filter>";
        else if (at)
            *problem = "position " + std::to_string(at) + " of the filter: " + *problem;
        return request.has_value && at == 0;
    }
    std::string bytes;
    SortKeys keys;
    char *end = nullptr;
    if (search_controls && request.name == "pr") {
        long size = request.has_value ? std::strtol(request.value.c_str(), &end, 10) : 0;
        bool good = size > 0 && size <= INT_MAX && std::isdigit(static_cast<unsigned char>(request.value[0])) &&
                    (*end == '\0' || std::strcmp(end, "/noprompt") == 0);
        return good || (*problem = "takes pr=<page size>[/noprompt]; every page is fetched without a prompt", false);
    }
    if (search_controls && request.name == "sss")
        return (request.has_value && read_sort_keys(request.value, &keys)) ||
               (*problem = "takes sss=[-]<attribute>[:<ordering rule OID>][/...]", false);
    if (ldif::lines::is_numeric_oid(request.name))
        return !request.has_value || generic_value(request.value, &bytes) ||
               (*problem = "takes <oid>, <oid>=:<value> or <oid>=::<base64 value>", false);
    *problem = search_controls ? "is not one of pr, sss, manageDSAit, assert or a numeric OID"
                               : "is not one of manageDSAit, assert or a numeric OID";
    return false;
}

// The control of one request; "pr" is made by the search for each page.
int build(LDAP *ld, const ControlRequest &request, LDAPControl **control)
{
    int critical = request.critical ? 1 : 0;
    if (request.name == "manageDSAit")
        return ldap_create_control(kManageDsaItOid, 0, nullptr, critical, control);
    if (request.name == "assert")
        return ldap_create_assertion_control(ld, request.value.c_str(), critical, control);
    if (request.name == "sss") {
        SortKeys keys;
        read_sort_keys(request.value, &keys);
        return ldap_create_sort_control(ld, keys.pointers.data(), request.critical ? 'T' : 'F', control);
    }
    std::string bytes;
    if (request.has_value)
        generic_value(request.value, &bytes);
    return ldap_create_control(request.name.c_str(), bytes.size(), bytes.data(), critical, control);
}

} // namespace

bool parse_control(const char *option, const char *text, bool search_controls, ControlRequest *request,
                   std::string *error)
{
    request->critical = text[0] == '!';
    std::string body = text + (request->critical ? 1 : 0);
    size_t equals = body.find('=');
    request->name = body.substr(0, equals);
    request->has_value = equals != std::string::npos;
    request->value = request->has_value ? body.substr(equals + 1) : "";
    std::string problem;
    if (check_value(*request, search_controls, &problem))
        return true;
    *error = std::string(option) + " " + text + ": " + request->name + " " + problem;
    return false;
}

unsigned long page_size(const ControlRequest &request) { return std::strtoul(request.value.c_str(), nullptr, 10); }

ControlList::~ControlList()
{
    for (LDAPControl *control : controls_)
        ldap_control_free(control);
}

int ControlList::Build(LDAP *ld, const std::vector<ControlRequest> &requests)
{
    for (const ControlRequest &request : requests) {
        if (request.name == "pr")
            continue;
        LDAPControl *control = nullptr;
        if (int rc = build(ld, request, &control); rc != LDAP_SUCCESS)
            return rc;
        Put(control);
    }
    return LDAP_SUCCESS;
}

void ControlList::Put(LDAPControl *control)
{
    auto same = [&](LDAPControl *c) { return std::strcmp(c->ldctl_oid, control->ldctl_oid) == 0; };
    auto it = std::find_if(controls_.begin(), controls_.end(), same);
    if (it == controls_.end()) {
        controls_.push_back(control);
        return;
    }
    ldap_control_free(*it);
    *it = control;
}

LDAPControl **ControlList::Array()
{
    if (controls_.empty())
        return nullptr;
    array_ = controls_;
    array_.push_back(nullptr);
    return array_.data();
}

} // namespace tool
