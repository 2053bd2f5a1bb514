/* KORN-LT: thread-parallel algebraic multigrid solver, public C interface.
 *
 * Every argument is passed by reference, arrays are 1-based in their content
 * (row pointers and column indices start at 1), integers are 32-bit and reals
 * 64-bit. Character arguments are followed, at the end of the argument list,
 * by their lengths as size_t values, in the order of the character arguments:
 * this is the calling convention of gfortran, so every routine is callable
 * from Fortran as well. For each routine `name` the library also exports the
 * Fortran name `name_` (lower case with a trailing underscore).
 *
 * Parameters are process-wide; one solve runs at a time per process. */
#ifndef KORN_H
#define KORN_H

#include <stddef.h>

#if defined(KORN_BUILDING_LIBRARY)
#define KORN_API __attribute__((visibility("default")))
#else
#define KORN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * The core call. Matrix in compressed sparse rows, 1-based, the diagonal the
 * first entry of every row: row i holds entries ia[i-1]..ia[i]-1 (1-based
 * positions into ja and a). u holds the first guess on entry and the solution
 * on return. Digit-coded controls: matrix, nsolve, ncyc, iswit, idump, iout.
 * ierr on return: 0 success, > 0 error, < 0 warning; see korn_describe_error.
 * ------------------------------------------------------------------------ */
KORN_API void korn(const int *nnu, const int *nna, const int *nsys, int *ia, int *ja, double *a,
                   double *f, double *u, int *iu, const int *ndiu, int *ip, const int *ndip,
                   const int *matrix, int *iscale, double *res_in, double *res_out,
                   int *ncyc_done, int *ierr, const int *nsolve, const int *ifirst,
                   const double *eps, const int *ncyc, const int *iswit, const double *a_cmplx,
                   const double *g_cmplx, const double *p_cmplx, const double *w_avrge,
                   const double *chktol, const int *idump, const int *iout);

/* The older 31-argument call. On return ncyc holds the cycles performed and
 * eps the final residual norm. ig, nda..ndig, levelx, madapt, nrd, nsolco,
 * nru, ecg1, ecg2, ewt2, nwt and ntr are accepted and have no effect. */
KORN_API void korn_simple(double *a, int *ia, int *ja, double *u, double *f, int *ig,
                          const int *nda, const int *ndia, const int *ndja, const int *ndu,
                          const int *ndf, const int *ndig, const int *nnu, const int *matrix,
                          const int *iswtch, const int *iout, const int *iprint,
                          const int *levelx, const int *ifirst, int *ncyc, double *eps,
                          const int *madapt, const int *nrd, const int *nsolco, const int *nru,
                          const double *ecg1, const double *ecg2, const double *ewt2,
                          const int *nwt, const int *ntr, int *ierr);

/* Wall-clock seconds of the setup and the solve phase of the last run. */
KORN_API void korn_get_times(double *setup_seconds, double *solve_seconds);

/* Stored controls of korn_simple, set and read by name. */
KORN_API void korn_simple_set_integer(const char *name, const int *value, size_t name_len);
KORN_API void korn_simple_set_real(const char *name, const double *value, size_t name_len);
KORN_API void korn_simple_get_control(const char *name, int *value, size_t name_len);
KORN_API void korn_simple_get_hclose(const char *name, double *value, size_t name_len);

/* ------------------------------------------------------------------------
 * Parameters by name. Names are case-sensitive; trailing blanks are ignored.
 * An unknown name ends the process with a message: it is a programming error.
 * Logicals are passed as int: bit 0 decides on input; output is 1 or 0.
 * ------------------------------------------------------------------------ */
KORN_API void setdble(const char *name, const double *value, size_t name_len);
KORN_API void getdble(const char *name, double *value, size_t name_len);
KORN_API void setinteger(const char *name, const int *value, size_t name_len);
KORN_API void getinteger(const char *name, int *value, size_t name_len);
KORN_API void setlogical(const char *name, const int *value, size_t name_len);
KORN_API void getlogical(const char *name, int *value, size_t name_len);
/* The value is padded with blanks or cut to the parameter's width. */
KORN_API void setchar(const char *name, const char *value, size_t name_len, size_t value_len);
/* The value comes back padded with blanks or cut to value_len (no NUL added).
 * Exported to Fortran as getchar_; the C name is prefixed so that it never
 * shadows the C library's getchar. */
KORN_API void korn_getchar(const char *name, char *value, size_t name_len, size_t value_len);

/* Any-type pair: type 1 integer, 2 real, 3 character, 4 logical. A real
 * parameter accepts type 1 or 2 and always reads/writes dval. */
KORN_API void setany(const char *name, const int *type, const int *ival, const double *dval,
                     const int *lval, const char *cval, size_t name_len, size_t cval_len);
KORN_API void getany(const char *name, const int *type, int *ival, double *dval, int *lval,
                     char *cval, size_t name_len, size_t cval_len);

/* The type of a settable parameter: 1 integer, 2 real, 3 character,
 * 4 logical; 0 for a name the registry does not know. Never stops. */
KORN_API int korn_parameter_type(const char *name, size_t name_len);

/* Writes every parameter's default back. */
KORN_API void korn_reset_parameters(void);

/* One set and one get routine per settable parameter, e.g.
 *   void korn_set_nmin_matrix(const int *v);  void korn_get_nmin_matrix(int *v);
 *   void korn_set_logfile(const char *v, size_t len);  (and get) */
#define KORN_REAL(n, d) \
  KORN_API void korn_set_##n(const double *v); KORN_API void korn_get_##n(double *v);
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d) KORN_API void korn_set_##n(const int *v); KORN_API void korn_get_##n(int *v);
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d) \
  KORN_API void korn_set_##n(const int *v); KORN_API void korn_get_##n(int *v);
#define KORN_CHAR(n, w, d)                                \
  KORN_API void korn_set_##n(const char *v, size_t len); \
  KORN_API void korn_get_##n(char *v, size_t len);
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR

/* ------------------------------------------------------------------------
 * Log units. Unit 0 is standard error, 5 standard input, 6 standard output;
 * the parameter `logio` names the unit that messages go to. A C or C++ host
 * attaches a file unit to a path here (append keeps existing content);
 * Fortran units of the host's own runtime are not visible to the library.
 * Returns 0 on success, 1 on failure.
 * ------------------------------------------------------------------------ */
KORN_API int korn_attach_unit(const int *unit, const char *path, const int *append, size_t path_len);
KORN_API int korn_detach_unit(const int *unit);

/* One line on what an error or warning code means (a static string). */
KORN_API const char *korn_describe_error(int code);

#ifdef __cplusplus
}
#endif

#endif /* KORN_H */
