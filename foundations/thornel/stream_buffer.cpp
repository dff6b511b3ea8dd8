#include <brantle/thornel/stream_buffer.h>

template class InputBuffer<char>;
template class OutputBuffer<char>;
