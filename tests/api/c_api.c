/* The exported C interface as a C11 host sees it: parameters of all four types
 * by name, the any-type pair, the per-parameter accessors, the type query, the
 * reset and the unit attachment, linked against the shared library. */
#include <stdio.h>
#include <string.h>

#include "korn.h"

/* Name and value lengths are passed explicitly, as a Fortran caller does. */
static int failures = 0;

#define CHECK(cond)                                                  \
  do {                                                               \
    if (!(cond)) {                                                   \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                    \
    }                                                                \
  } while (0)

static void test_integer_and_real(void) {
  int iv = 7, iout = 0;
  double dv = 0.375, dout = 0.0;
  setinteger("cl_omp", &iv, 6);
  getinteger("cl_omp", &iout, strlen("cl_omp"));
  CHECK(iout == 7);
  /* Trailing blanks of the name do not count. */
  iv = 11;
  setinteger("nmin_vector   ", &iv, 14);
  getinteger("nmin_vector", &iout, 11);
  CHECK(iout == 11);
  setdble("omega_smo", &dv, 9);
  getdble("omega_smo", &dout, 9);
  CHECK(dout == 0.375);
  getdble("conv_stop", &dout, 9);
  CHECK(dout == 0.01);
}

static void test_logical(void) {
  int v = 0, out = -1;
  getlogical("backup", &out, 6);
  CHECK(out == 1); /* default true, returned as 1 */
  setlogical("backup", &v, 6);
  getlogical("backup", &out, 6);
  CHECK(out == 0);
  v = -1; /* true as a host language stores it */
  setlogical("keepmem", &v, 7);
  getlogical("keepmem", &out, 7);
  CHECK(out == 1);
  v = 2; /* bit 0 decides */
  setlogical("keepmem", &v, 7);
  getlogical("keepmem", &out, 7);
  CHECK(out == 0);
}

static void test_character(void) {
  char buf[12];
  memset(buf, '#', sizeof buf);
  korn_getchar("scratchfile", buf, 11, 10);
  CHECK(memcmp(buf, "scratch.ko", 10) == 0); /* cut to the caller's length */
  CHECK(buf[10] == '#');                      /* no terminator written */
  setchar("filnam", "matrix_a", 6, 8);
  memset(buf, '#', sizeof buf);
  korn_getchar("filnam", buf, 6, 11);
  CHECK(memcmp(buf, "matrix_a   ", 11) == 0); /* padded with blanks */
  setchar("ioform", "formatted", 6, 9);      /* width 1 */
  korn_getchar("ioform", buf, 6, 3);
  CHECK(memcmp(buf, "f  ", 3) == 0);
}

static void test_any(void) {
  int type = 1, ival = 3, lval = 0, iout = 0, lout = 0;
  double dval = 0.25, dout = 0.0;
  char cout[8];
  /* A real parameter with type 1 takes dval. */
  setany("conv_stop", &type, &ival, &dval, &lval, "", 9, 0);
  getdble("conv_stop", &dout, 9);
  CHECK(dout == 0.25);
  ival = 42;
  setany("nmin_matrix", &type, &ival, &dval, &lval, "", 11, 0);
  getany("nmin_matrix", &type, &iout, &dout, &lout, cout, 11, sizeof cout);
  CHECK(iout == 42);
  type = 4;
  lval = 1;
  setany("check_order", &type, &ival, &dval, &lval, "", 11, 0);
  getany("check_order", &type, &iout, &dout, &lout, cout, 11, sizeof cout);
  CHECK(lout == 1);
  type = 3;
  setany("filnam", &type, &ival, &dval, &lval, "grid", 6, 4);
  getany("filnam", &type, &iout, &dout, &lout, cout, 6, sizeof cout);
  CHECK(memcmp(cout, "grid    ", 8) == 0);
}

static void test_accessors_type_and_reset(void) {
  int n = 250, out = 0;
  char buf[8];
  korn_set_nmin_matrix(&n);
  getinteger("nmin_matrix", &out, 11);
  CHECK(out == 250);
  korn_get_cl_omp(&out);
  CHECK(out == 7);
  korn_set_logfile("k.log", 5);
  korn_get_logfile(buf, sizeof buf);
  CHECK(memcmp(buf, "k.log   ", 8) == 0);

  CHECK(korn_parameter_type("cl_omp", 6) == 1);
  CHECK(korn_parameter_type("conv_stop", 9) == 2);
  CHECK(korn_parameter_type("logfile", 7) == 3);
  CHECK(korn_parameter_type("backup", 6) == 4);
  CHECK(korn_parameter_type("ncg", 3) == 0);
  CHECK(korn_parameter_type("mapping", 7) == 0);
  CHECK(korn_parameter_type("CL_OMP", 6) == 0);

  korn_reset_parameters();
  getinteger("nmin_matrix", &out, 11);
  CHECK(out == 1);
  getinteger("nversion", &out, 8);
  CHECK(out == -1000000000);
  korn_get_logfile(buf, sizeof buf);
  CHECK(memcmp(buf, "        ", 8) == 0);
}

static void test_units(void) {
  int unit = 47, bad = -2, append = 1;
  const char* path = "c_api_unit.txt";
  CHECK(korn_attach_unit(&unit, path, &append, strlen(path)) == 0);
  CHECK(korn_detach_unit(&unit) == 0);
  CHECK(korn_attach_unit(&bad, path, &append, strlen(path)) == 1);
  remove(path);
  CHECK(korn_describe_error(93) != NULL && strlen(korn_describe_error(93)) > 0);
}

int main(void) {
  int nversion = 0;
  /* Before any reset nversion holds its load value. */
  getinteger("nversion", &nversion, 8);
  CHECK(nversion == 4);
  test_integer_and_real();
  test_logical();
  test_character();
  test_any();
  test_accessors_type_and_reset();
  test_units();
  if (failures != 0) {
    fprintf(stderr, "%d check(s) failed\n", failures);
    return 1;
  }
  printf("C interface: all checks passed\n");
  return 0;
}
