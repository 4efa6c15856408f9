/* The shared object is made of the core library only; CMake needs one source of its own. */
