# Sanitizer builds of the whole tree.
#  address: AddressSanitizer + UndefinedBehaviorSanitizer, any finding aborts.
#  thread:  ThreadSanitizer (use with clang and LLVM's OpenMP runtime + archer).
if(KORN_SANITIZE STREQUAL "address")
  set(_korn_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(KORN_SANITIZE STREQUAL "thread")
  set(_korn_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT KORN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KORN_SANITIZE must be '', 'address' or 'thread'")
endif()
if(_korn_san)
  add_compile_options(${_korn_san} -g -O1)
  add_link_options(${_korn_san})
endif()
