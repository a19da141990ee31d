# Compiles ContractProbes.cpp as the plug-in is compiled: as it stands it must build, and with
# each probe below (one member beyond the contract, or a host-side header) it must not.
# Arguments: -DCOMPILER= -DSOURCE= -DINCLUDES=<;-list>
set(probes # grouped by what they reach
    "frame.GetCapacity()" "Lyr::EthFrame empty" "frame.GetDstAddress()" "frame.GetLengthType()" "frame.SetVlanTag(1)"
    "packet.GetSrcAddress()"
    "pool.GetFreeCount()" "pool.GetOverflowCount()"
    "output.GetConfigState()" "output.SubscribeTimeout(Lyr::NetOutputIf::TimeoutFunctor())"
    "Lyr::PreciseScheduler::GetInstance().SetPresentTimestamp(0)" "Lyr::PreciseScheduler::GetInstance().GetLatenessStatistics()"
    "Lyr::PreciseScheduler::GetInstance().GetThreadPriority()"
    "Kt::SetLogSink(nullptr)"
    "Kt::CSlice<unsigned char> made(slice.owner, slice.data, 1)"
    "Kt::CIpAddress number(0x7f000001u)" "address.ToUint32()" "(void)(destination == address)"
    "Kt::CMacAddress number(1)"
    "Kt::MakeFunctor<void()>([] {})" "body = body"
    "-include lyr/PluginLookup.h" "-include lyr/PluginLoader.h")
set(flags -std=c++17 -fsyntax-only -DLYR_CONTRACT_ONLY)
foreach(dir ${INCLUDES})
    list(APPEND flags -I${dir})
endforeach()
execute_process(COMMAND ${COMPILER} ${flags} ${SOURCE} RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "what the contract lists does not build:\n${errors}")
endif()
set(visible "")
foreach(probe IN LISTS probes)
    if(probe MATCHES "^-include ")
        string(REPLACE " " ";" probeFlags "${probe}")
    else()
        set(probeFlags "-DPROBE=${probe}")
    endif()
    execute_process(COMMAND ${COMPILER} ${flags} ${probeFlags} ${SOURCE} RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(result EQUAL 0)
        list(APPEND visible "${probe}")
    endif()
endforeach()
if(visible)
    list(JOIN visible "\n  " text)
    message(FATAL_ERROR "beyond the contract, yet visible to the plug-in:\n  ${text}")
endif()
list(LENGTH probes count)
message(STATUS "what the contract lists builds; all ${count} probes beyond it fail to")
