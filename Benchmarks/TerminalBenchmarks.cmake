# The libvterm peer, used only as a black box through its public interface: linked into the
# in-process benchmark, and built as a small program for the whole-process comparison with
# vellum-replay.
find_library(VTERM_LIBRARY vterm)
find_path(VTERM_INCLUDE_DIR vterm.h)
if(VTERM_LIBRARY AND VTERM_INCLUDE_DIR)
  target_compile_definitions(TerminalBenchmarks PRIVATE CORVEX_HAVE_LIBVTERM=1)
  target_include_directories(TerminalBenchmarks PRIVATE ${VTERM_INCLUDE_DIR})
  target_link_libraries(TerminalBenchmarks PRIVATE ${VTERM_LIBRARY})
  add_executable(terminal-peer-replay ${CMAKE_CURRENT_SOURCE_DIR}/TerminalPeerReplay.c)
  target_include_directories(terminal-peer-replay PRIVATE ${VTERM_INCLUDE_DIR})
  target_link_libraries(terminal-peer-replay PRIVATE ${VTERM_LIBRARY})
  add_dependencies(TerminalBenchmarks terminal-peer-replay vellum-replay)
endif()
