# Sanitizer builds of the whole tree (KORN_SANITIZE):
#  address: AddressSanitizer + UndefinedBehaviorSanitizer; any finding aborts
#           (-fno-sanitize-recover=all), libstdc++ assertions on. C, C++ and
#           Fortran are all instrumented, so the Fortran caller links the same
#           runtimes.
#  thread:  ThreadSanitizer. Needs clang with LLVM's OpenMP runtime (libomp):
#           libgomp is not instrumented and its barriers look like races. The
#           archer tool next to libomp reports OpenMP's synchronisation to TSan;
#           the tests load it through OMP_TOOL_LIBRARIES (KORN_TEST_ENVIRONMENT).
# Sets KORN_TEST_ENVIRONMENT (one NAME=value for the tests) and
# KORN_SANITIZER_SOURCES (runtime defaults compiled into test programs).
set(KORN_TEST_ENVIRONMENT "")
set(KORN_SANITIZER_SOURCES "")

if(KORN_SANITIZE STREQUAL "address")
  set(_korn_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
elseif(KORN_SANITIZE STREQUAL "thread")
  set(_korn_san -fsanitize=thread -fno-omit-frame-pointer)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KORN_SANITIZE=thread needs clang and LLVM's OpenMP runtime "
      "(libgomp gives false reports): configure with CC=clang CXX=clang++ (make tsan does)")
  endif()
  # FindOpenMP with clang picks libomp when it is installed (libomp-dev).
  if(NOT OpenMP_omp_LIBRARY OR NOT "omp" IN_LIST OpenMP_CXX_LIB_NAMES)
    message(FATAL_ERROR "KORN_SANITIZE=thread: OpenMP is not LLVM's libomp "
      "(${OpenMP_CXX_LIB_NAMES}); install libomp-dev")
  endif()
  get_filename_component(_korn_omp_dir "${OpenMP_omp_LIBRARY}" DIRECTORY)
  find_library(KORN_ARCHER_LIBRARY NAMES archer HINTS "${_korn_omp_dir}" NO_DEFAULT_PATH)
  if(NOT KORN_ARCHER_LIBRARY)
    message(FATAL_ERROR "KORN_SANITIZE=thread: libarcher not found beside ${OpenMP_omp_LIBRARY}")
  endif()
  message(STATUS "ThreadSanitizer: OpenMP ${OpenMP_omp_LIBRARY}, tool ${KORN_ARCHER_LIBRARY}")
  set(KORN_TEST_ENVIRONMENT "OMP_TOOL_LIBRARIES=${KORN_ARCHER_LIBRARY}")
elseif(NOT KORN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KORN_SANITIZE must be '', 'address' or 'thread'")
endif()

if(_korn_san)
  # Instrumented code gives false warnings (GCC's -Wmaybe-uninitialized inside
  # <regex>, for one); warnings stay visible but do not stop these builds. The
  # Release build keeps them as errors.
  list(REMOVE_ITEM KORN_WARNINGS -Werror)
  add_compile_options(${_korn_san} -g -O1)
  add_link_options(${_korn_san})
  set(KORN_SANITIZER_SOURCES ${CMAKE_CURRENT_LIST_DIR}/sanitizer_defaults.cpp)
endif()
