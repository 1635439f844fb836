# One warning set for every target of the project; VARNOCH_WERROR turns them into errors (CI does).
add_library(varnoch_warnings INTERFACE)
add_library(varnoch::warnings ALIAS varnoch_warnings)
target_compile_options(varnoch_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough -Wcast-qual
  -Wconversion -Wsign-conversion -Wswitch-enum
  $<$<BOOL:${VARNOCH_WERROR}>:-Werror>)
