// A library that has one of libFLAC's optional entry points and none of its
// required ones: what a broken or foreign install looks like to the binding.
extern "C" int FLAC__stream_decoder_set_md5_checking(void*, int) { return 1; }
