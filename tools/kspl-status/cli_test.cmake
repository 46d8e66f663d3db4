# Runs kspl-status (under EMULATOR when cross-compiled) and checks exit codes
# and output.
function(run expected_rc out_var)
  execute_process(COMMAND ${EMULATOR} ${TOOL} ${ARGN}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc STREQUAL "${expected_rc}")
    message(FATAL_ERROR "kspl-status ${ARGN}: exit ${rc}, expected ${expected_rc}\n${out}${err}")
  endif()
  set(${out_var} "${out}${err}" PARENT_SCOPE)
endfunction()
function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(FATAL_ERROR "output does not match '${pattern}':\n${text}")
  endif()
endfunction()

# Every code the library builds, in both spellings.
set(all C7F10001 C7F10002 C7F10003 C7F10004 C7F10005 C7F10007 C7F1000A C7F11001 C7F11002
        C7F11003 0xC7FA0002 0xC7FA0003 0xC7FA0004 0xC7FA0005 0xC7FA0009 0xC7FA000B 0xc7fa000d
        0xC7FA0010 0xC7FA1001 0xC7FA1003 0xC7FA1004)
run(0 out ${all})
string(REGEX MATCHALL "\n" lines "${out}")
list(LENGTH lines n)
if(NOT n EQUAL 21)
  message(FATAL_ERROR "expected 21 lines, got ${n}:\n${out}")
endif()
expect("${out}" "C7F10005  platform services: out of memory\n")
expect("${out}" "C7FA000D  object manager: operation not offered")
run(0 out C7F00006 C7F80002 0)
expect("${out}" "C7F00006  component runtime: a component library could not be loaded")
expect("${out}" "C7F80002  configuration store: no key at that path")
expect("${out}" "00000000  success")

# One unknown among known ones: all printed, exit 1.
run(1 out C7F10004 C7F10006)
expect("${out}" "C7F10004  platform services: invalid parameter")
expect("${out}" "C7F10006  unknown status \\(severity 3, facility 0x7F1, code 6\\)")

run(0 out --json C7F1000A)
expect("${out}" "^\\[{\"status\":\"C7F1000A\",\"severity\":3,\"facility\":2033,\"code\":10,\"known\":true,\"text\":\"platform services: time-out")

# Usage errors name the argument.
run(2 out C7F1000G)
expect("${out}" "C7F1000G is not a status")
run(2 out 1C7F10004)
run(2 out --bogus)
run(2 out)
run(0 out --help)
expect("${out}" "usage: kspl-status")
