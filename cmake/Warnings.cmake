# One warning policy for every target of the project.
set(MOLK_WARNINGS -Wall -Wextra -Wshadow -Wcast-align)
if(MOLK_WERROR)
  list(APPEND MOLK_WARNINGS -Werror)
endif()

function(molk_target_warnings target)
  target_compile_options(${target} PRIVATE ${MOLK_WARNINGS})
endfunction()
