#include "snmp/snmp_pdu.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "liblocal/base/c_memory.h"
#include "snmp/asn1.h"

const uint64_t default_enterprise[9] = {1, 3, 6, 1, 4, 1, 3, 1, 1};

const char* const error_string[6] = {
    "No Error",
    "Response message would have been too large.",
    "There is no such variable name in this MIB.",
    "The value given has the wrong type or length",
    "This variable is read only",
    "A general failure occured",
};

namespace {

// A copy of `bytes` bytes at `from`; null without memory.
void* duplicate(const void* from, size_t bytes) {
  auto* copy = static_cast<char*>(malloc(bytes));
  if (copy != nullptr) std::copy_n(static_cast<const char*>(from), bytes, copy);
  return copy;
}

void free_var(snmp_var* var) {
  free(var->name);
  free(var->value);
  free(var);
}

// Stores a copy of `from` in `*link`, the null end of a binding list. False without memory;
// the list is then as before.
bool copy_var(snmp_var** link, const snmp_var& from) {
  snmp_var* var = snmp_new_var(link);
  if (var == nullptr) return false;
  var->name = snmp_copy_objid(from.name, from.name_length);
  var->name_length = from.name_length;
  var->type = from.type;
  if (from.value != nullptr) {
    var->value = duplicate(from.value, static_cast<size_t>(from.value_length));
    var->value_length = from.value_length;
  }
  if (var->name != nullptr && (var->value != nullptr || from.value == nullptr)) return true;
  free_var(var);
  *link = nullptr;
  return false;
}

// A copy of `pdu` that leaves out the binding at 1-based position `omitted` (0:
// none).
unique_pdu copy_pdu(const snmp_pdu* pdu, long omitted) {
  unique_pdu copy(snmp_pdu_create(pdu->command));
  if (copy == nullptr) return nullptr;
  *copy = *pdu;
  copy->variables = nullptr;
  if (pdu->enterprise != nullptr) {
    copy->enterprise = snmp_copy_objid(pdu->enterprise, pdu->enterprise_length);
    if (copy->enterprise == nullptr) return nullptr;
  }
  snmp_var** link = &copy->variables;
  long position = 0;
  for (const snmp_var* var = pdu->variables; var != nullptr; var = var->next) {
    if (++position == omitted) continue;
    if (!copy_var(link, *var)) return nullptr;
    link = &(*link)->next;
  }
  return copy;
}

long count_vars(const snmp_pdu* pdu) {
  long count = 0;
  for (const snmp_var* var = pdu->variables; var != nullptr; var = var->next) ++count;
  return count;
}

}  // namespace

snmp_pdu* snmp_pdu_create(int32_t command) {
  auto* pdu = c_new<snmp_pdu>();
  if (pdu == nullptr) return nullptr;
  pdu->command = command;
  pdu->error_status = -1;
  pdu->error_index = -1;
  return pdu;
}

void snmp_free_pdu(snmp_pdu* pdu) {
  if (pdu == nullptr) return;
  snmp_var* var = pdu->variables;
  while (var != nullptr) {
    snmp_var* next = var->next;
    free_var(var);
    var = next;
  }
  free(pdu->enterprise);
  free(pdu);
}

snmp_var* snmp_new_var(snmp_var** link) {
  *link = c_new<snmp_var>();
  return *link;
}

bool snmp_add_var(snmp_pdu* pdu, std::span<const uint64_t> name, uint8_t type, const void* value,
                  int32_t value_length) {
  snmp_var binding{};
  binding.name = const_cast<uint64_t*>(name.data());
  binding.name_length = static_cast<int32_t>(name.size());
  binding.type = type;
  binding.value = const_cast<void*>(value);
  binding.value_length = value_length;
  snmp_var** link = &pdu->variables;
  while (*link != nullptr) link = &(*link)->next;
  return copy_var(link, binding);
}

void snmp_add_null_var(snmp_pdu* pdu, const uint64_t* name, int32_t name_length) {
  (void)snmp_add_var(pdu, {name, static_cast<size_t>(name_length)}, kAsnNull, nullptr, 0);
}

uint64_t* snmp_copy_objid(const uint64_t* subids, int32_t count) {
  return static_cast<uint64_t*>(duplicate(subids, static_cast<size_t>(count) * sizeof *subids));
}

snmp_pdu* snmp_clone_pdu(const snmp_pdu* pdu) { return copy_pdu(pdu, 0).release(); }

snmp_pdu* snmp_fix_pdu(const snmp_pdu* pdu, int32_t command) {
  if (pdu->command != kSnmpGetResponse || pdu->error_status == 0 || pdu->error_index < 1) {
    return nullptr;
  }
  long bindings = count_vars(pdu);
  if (bindings < 2 || pdu->error_index > bindings) return nullptr;
  unique_pdu fixed = copy_pdu(pdu, pdu->error_index);
  if (fixed == nullptr) return nullptr;
  fixed->command = command;
  fixed->request_id = 0;
  fixed->error_status = -1;
  fixed->error_index = -1;
  return fixed.release();
}

const char* snmp_errstring(int32_t error_status) {
  if (error_status < 0 || error_status >= std::ssize(error_string)) return "Unknown Error";
  return error_string[error_status];
}
