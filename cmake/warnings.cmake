# Every target of ours links `warnings`.
add_library(warnings INTERFACE)
target_compile_options(warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow)
option(IP6DNS_WERROR "Treat warnings as errors" OFF)
if(IP6DNS_WERROR)
  target_compile_options(warnings INTERFACE -Werror)
endif()
