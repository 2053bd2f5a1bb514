// Exported C/Fortran routines of the parameter registry.
#include <string>

#include "entry/export.hpp"
#include "korn.h"
#include "log/log.hpp"
#include "params/params.hpp"

using kornlt::fstr;
using kornlt::fstr_out;

extern "C" {

void setdble(const char* name, const double* value, size_t name_len) {
  kornlt::set_double(fstr(name, name_len), *value);
}
void getdble(const char* name, double* value, size_t name_len) {
  *value = kornlt::get_double(fstr(name, name_len));
}
void setinteger(const char* name, const int* value, size_t name_len) {
  kornlt::set_integer(fstr(name, name_len), *value);
}
void getinteger(const char* name, int* value, size_t name_len) {
  *value = kornlt::get_integer(fstr(name, name_len));
}
void setlogical(const char* name, const int* value, size_t name_len) {
  kornlt::set_logical(fstr(name, name_len), (*value & 1) != 0);
}
void getlogical(const char* name, int* value, size_t name_len) {
  *value = kornlt::get_logical(fstr(name, name_len)) ? 1 : 0;
}
void setchar(const char* name, const char* value, size_t name_len, size_t value_len) {
  kornlt::set_char(fstr(name, name_len), fstr(value, value_len));
}
void korn_getchar(const char* name, char* value, size_t name_len, size_t value_len) {
  fstr_out(kornlt::get_char(fstr(name, name_len)), value, value_len);
}

void setany(const char* name, const int* type, const int* ival, const double* dval, const int* lval,
            const char* cval, size_t name_len, size_t cval_len) {
  kornlt::set_any(fstr(name, name_len), *type, ival ? *ival : 0, dval ? *dval : 0.0,
                lval ? (*lval & 1) != 0 : false, fstr(cval, cval_len));
}
void getany(const char* name, const int* type, int* ival, double* dval, int* lval, char* cval,
            size_t name_len, size_t cval_len) {
  const kornlt::AnyValue v = kornlt::get_any(fstr(name, name_len), *type);
  switch (*type) {
    case 1:
      if (kornlt::find_param(kornlt::ParamType::Real, fstr(name, name_len)) != nullptr) {
        if (dval) *dval = v.dval;
      } else if (ival) {
        *ival = v.ival;
      }
      break;
    case 2: if (dval) *dval = v.dval; break;
    case 3: if (cval) fstr_out(v.cval, cval, cval_len); break;
    case 4: if (lval) *lval = v.lval ? 1 : 0; break;
    default: break;
  }
}

void korn_reset_parameters(void) { kornlt::reset_parameters(); }

int korn_parameter_type(const char* name, size_t name_len) {
  const kornlt::ParamInfo* p = kornlt::find_param_any_type(fstr(name, name_len));
  return p == nullptr || p->read_only ? 0 : static_cast<int>(p->type);
}

int korn_attach_unit(const int* unit, const char* path, const int* append, size_t path_len) {
  return kornlt::attach_unit(*unit, kornlt::trim_name(fstr(path, path_len)), append && *append != 0) ? 0 : 1;
}
int korn_detach_unit(const int* unit) { return kornlt::detach_unit(*unit); }

const char* korn_describe_error(int code) {
  static thread_local std::string text;
  text = std::string(kornlt::describe_error(code));
  return text.c_str();
}

// ---- per-parameter accessors -------------------------------------------------
#define KORN_REAL(n, d)                                        \
  void korn_set_##n(const double* v) { kornlt::prm().n = *v; } \
  void korn_get_##n(double* v) { *v = kornlt::prm().n; }
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d)                                      \
  void korn_set_##n(const int* v) { kornlt::prm().n = *v; } \
  void korn_get_##n(int* v) { *v = kornlt::prm().n; }
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d)                                                    \
  void korn_set_##n(const int* v) { kornlt::prm().n = kornlt::Logical(*v != 0); } \
  void korn_get_##n(int* v) { *v = bool(kornlt::prm().n) ? 1 : 0; }
#define KORN_CHAR(n, w, d)                                                           \
  void korn_set_##n(const char* v, size_t len) { kornlt::prm().n.assign(fstr(v, len)); } \
  void korn_get_##n(char* v, size_t len) { fstr_out(kornlt::prm().n.padded(), v, len); }
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR

// ---- Fortran names -------------------------------------------------------------
void setdble_(const char*, const double*, size_t) KORN_FORTRAN_ALIAS(setdble);
void getdble_(const char*, double*, size_t) KORN_FORTRAN_ALIAS(getdble);
void setinteger_(const char*, const int*, size_t) KORN_FORTRAN_ALIAS(setinteger);
void getinteger_(const char*, int*, size_t) KORN_FORTRAN_ALIAS(getinteger);
void setlogical_(const char*, const int*, size_t) KORN_FORTRAN_ALIAS(setlogical);
void getlogical_(const char*, int*, size_t) KORN_FORTRAN_ALIAS(getlogical);
void setchar_(const char*, const char*, size_t, size_t) KORN_FORTRAN_ALIAS(setchar);
void getchar_(const char*, char*, size_t, size_t) KORN_FORTRAN_ALIAS(korn_getchar);
void setany_(const char*, const int*, const int*, const double*, const int*, const char*, size_t, size_t)
    KORN_FORTRAN_ALIAS(setany);
void getany_(const char*, const int*, int*, double*, int*, char*, size_t, size_t) KORN_FORTRAN_ALIAS(getany);
void korn_reset_parameters_(void) KORN_FORTRAN_ALIAS(korn_reset_parameters);
int korn_parameter_type_(const char*, size_t) KORN_FORTRAN_ALIAS(korn_parameter_type);
int korn_attach_unit_(const int*, const char*, const int*, size_t) KORN_FORTRAN_ALIAS(korn_attach_unit);
int korn_detach_unit_(const int*) KORN_FORTRAN_ALIAS(korn_detach_unit);

#define KORN_REAL(n, d)                                                \
  void korn_set_##n##_(const double*) KORN_FORTRAN_ALIAS(korn_set_##n); \
  void korn_get_##n##_(double*) KORN_FORTRAN_ALIAS(korn_get_##n);
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d)                                              \
  void korn_set_##n##_(const int*) KORN_FORTRAN_ALIAS(korn_set_##n); \
  void korn_get_##n##_(int*) KORN_FORTRAN_ALIAS(korn_get_##n);
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d) KORN_INT(n, d)
#define KORN_CHAR(n, w, d)                                                   \
  void korn_set_##n##_(const char*, size_t) KORN_FORTRAN_ALIAS(korn_set_##n); \
  void korn_get_##n##_(char*, size_t) KORN_FORTRAN_ALIAS(korn_get_##n);
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR

}  // extern "C"
