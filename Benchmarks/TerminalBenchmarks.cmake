# The libvterm peer, used only as a black box through its public interface.
find_library(VTERM_LIBRARY vterm)
find_path(VTERM_INCLUDE_DIR vterm.h)
if(VTERM_LIBRARY AND VTERM_INCLUDE_DIR)
  target_compile_definitions(TerminalBenchmarks PRIVATE CORVEX_HAVE_LIBVTERM=1)
  target_include_directories(TerminalBenchmarks PRIVATE ${VTERM_INCLUDE_DIR})
  target_link_libraries(TerminalBenchmarks PRIVATE ${VTERM_LIBRARY})
endif()
