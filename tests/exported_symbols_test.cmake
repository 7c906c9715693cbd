# The library's dynamic symbol table holds its API and nothing else
# (cmake -P, -DNM=... -DLIBRARY=...): names in zel:: (with the vtables and
# type information of its classes), getProcessUid and the C-linkage
# functions; no standard-library instantiation and no private member.
execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
                OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY} (${result})")
endif()
string(REPLACE "\n" ";" lines "${listing}")

set(foreign "")
set(names "")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-f]+ [A-Za-z] (.+)$")
    continue()
  endif()
  set(name "${CMAKE_MATCH_1}")
  list(APPEND names "${name}")
  if(NOT name MATCHES "^((typeinfo name for |typeinfo for |vtable for )?zel::|getProcessUid\\(|[A-Za-z_][A-Za-z0-9_]*$)")
    string(APPEND foreign "  ${name}\n")
  endif()
endforeach()
if(foreign)
  message(FATAL_ERROR "exported, but not the library's API:\n${foreign}")
endif()

foreach(private "zel::Logger::Write(" "zel::Logger::DateChanged(" "zel::LoggerFile::Naming("
                "zel::Looper::RunBatch(" "zel::MsgBus::TakeDueLocked(" "zel::Timer::CollectDue("
                "zel::ZelTracer::sZelTracer")
  foreach(name IN LISTS names)
    string(FIND "${name}" "${private}" at)
    if(at EQUAL 0)
      message(FATAL_ERROR "private member exported: ${name}")
    endif()
  endforeach()
endforeach()

foreach(api "log_print" "zel_utils_version" "zel::Looper::PostMessageAAA(" "zel::Logger::sLogger"
            "typeinfo for zel::Message" "vtable for zel::ZelTracer")
  set(found FALSE)
  foreach(name IN LISTS names)
    string(FIND "${name}" "${api}" at)
    if(at EQUAL 0)
      set(found TRUE)
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "API symbol missing: ${api}")
  endif()
endforeach()
