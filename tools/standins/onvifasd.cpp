// The same stand-in as onvifd, built under the name onvifasd so that it
// finds its name from its file name.
#include "onvifd.cpp"
