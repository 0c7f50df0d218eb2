# Run after a service has been linked. The linker would not complain: import libraries of the system have the name too.
file(STRINGS ${module} names REGEX "^DllGetClassObject$")
if(NOT names)
  message(FATAL_ERROR "${module} does not export DllGetClassObject, so no host can load it: "
    "write TX_SUBSYSTEM_MODULE(class, CLSID) in one of its sources, outside of any namespace.")
endif()
