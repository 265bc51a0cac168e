# Warnings are errors. Each flag stands here with the fault that it finds.
add_library(tola_warnings INTERFACE)
target_compile_options(tola_warnings INTERFACE
  -Wall -Wextra               # the compilers' own common sense
  -Werror                     # a warning that may stay is never read
  -Wshadow                    # an inner name that hides an outer one is a wrong variable sooner or later
  -Wformat=2                  # format strings from outside, and formats that do not fit their arguments
  -Wconversion                # a length or an id that loses bits without saying so
  -Wno-sign-conversion        # ... but u16 and u8 promote to int in every expression: too much noise
  -Wnon-virtual-dtor          # a derived object deleted through its base
  -Woverloaded-virtual        # a function that hides the one it meant to override
  -Wcast-qual                 # a const that is cast away
  -Wundef                     # a misspelt macro in #if reads as 0
  -Wvla)                      # stack use that an input decides
target_compile_options(tola_warnings INTERFACE
  -fno-strict-aliasing        # records are read out of byte buffers
  -fstack-protector-strong -D_FORTIFY_SOURCE=2)
