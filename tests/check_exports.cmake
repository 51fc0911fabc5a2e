# Reads the dynamic symbol table of the service library (nm -D, demangled) and
# checks what a host can and cannot link against.
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
foreach(wanted "Kavo::Bpf::BpfServiceMain()" "Kavo::Bpf::KavoBpfService::GetInstance()"
               "Kavo::Bpf::KavoBpfService::Wait()" "Kavo::Bpf::KavoBpfService::stop()"
               "Kavo::Bpf::AttachAllKavoBpfProgram(" "Kavo::Bpf::StringPrintf")
  string(FIND "${symbols}" "${wanted}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "not exported: ${wanted}")
  endif()
endforeach()
foreach(hidden "Kavo::Bpf::ParseDecimal(" "Kavo::Bpf::ForEachLine(")
  string(FIND "${symbols}" "${hidden}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "internal helper exported: ${hidden}")
  endif()
endforeach()
message(STATUS "exports as expected")
