// The registry table and its look-ups.
//
// Row numbers are a contract: saved settings (the last export row per item
// class), collections (their source row) and the drivers name rows by index,
// and every look-up takes the first match, so the order of rows sharing an
// extension decides which reader or writer a name or a file finds. Detection
// ties also go to the earlier row. Add rows only at their place in the list
// and never reorder.
//
// Filling a row when its module lands is a one-line change: replace the
// `nullptr, nullptr` of read and write by the module's functions (and the
// rate function for compressed writers). The last column keeps what the
// format has by design, so listings can tell built from planned.
//
// Detect functions live with their module in formats/modules/<prefix>.cpp.
// Capability words are 0 where the writer's sample encodings are not known
// yet; variant parameters of modules not yet written are 0 until their
// authors number them.
#include "formats/registry.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <mutex>
#include <span>
#include <unordered_map>

#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/aiff.h"
#include "formats/modules/akai.h"
#include "formats/modules/dls.h"
#include "formats/modules/flac.h"
#include "formats/modules/mid.h"
#include "formats/modules/mod.h"
#include "formats/modules/ogg.h"
#include "formats/modules/raw.h"
#include "formats/modules/sf2.h"
#include "formats/modules/sfz.h"
#include "formats/modules/txt.h"
#include "formats/modules/wav.h"
#include "formats/modules/wv.h"

namespace kv {

namespace {

constexpr uint8_t RD = kDesignRead | kDesignDetect;
constexpr uint8_t RWD = kDesignRead | kDesignWrite | kDesignDetect;
constexpr uint8_t W_ = kDesignWrite;

// extension, read, write, detect, name, type flags, capabilities, parameter, rate, design
constexpr FormatEntry kFormats[] = {
    /*  0*/ {"*", nullptr, nullptr, raw_Detect, "Unrecognized", 0x01, 0x00000000, 0, nullptr, RD},
    /*  1*/ {"32", nullptr, nullptr, nullptr, "Raw Yamaha DX7 voice", 0x80, 0x00000000, 0, nullptr, RD},
    /*  2*/ {"3g2", nullptr, nullptr, nullptr, "3GPP project 2", 0x01, 0x00120000, 0, nullptr, RWD},
    /*  3*/ {"3gp", nullptr, nullptr, nullptr, "3GPP", 0x01, 0x00120000, 1408, nullptr, RWD},
    /*  4*/ {"404", nullptr, nullptr, nullptr, "Muon DS404 bank", 0x80, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*  5*/ {"404", nullptr, nullptr, nullptr, "Muon DS404 patch", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*  6*/ {"669", nullptr, nullptr, mod_669Detect, "669 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*  7*/ {"a3s", nullptr, nullptr, nullptr, "Yamaha A3000 sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*  8*/ {"aac", nullptr, nullptr, nullptr, "MPEG 2/4 AAC", 0x01, 0x00000000, 0, nullptr, RD},
    /*  9*/ {"aac", nullptr, nullptr, nullptr, "MPEG 2 AAC - Low Complexity", 0x01, 0x00320000, 0, nullptr, W_},
    /* 10*/ {"aac", nullptr, nullptr, nullptr, "MPEG 2 AAC - Main Profile", 0x01, 0x00320000, 0, nullptr, W_},
    /* 11*/ {"aac", nullptr, nullptr, nullptr, "MPEG 4 AAC - Low Complexity", 0x01, 0x00320000, 0, nullptr, W_},
    /* 12*/ {"aac", nullptr, nullptr, nullptr, "MPEG 4 AAC - Main Profile", 0x01, 0x00320000, 0, nullptr, W_},
    /* 13*/ {"ads", nullptr, nullptr, nullptr, "PlayStation 2 sound", 0x01, 0x00000000, 0, nullptr, RD},
    /* 14*/ {"afc", aiff_Imp, nullptr, aiff_Detect, "Compressed AIFF", 0x01, 0x00000000, 1, nullptr, RD},
    /* 15*/ {"aif", aiff_Imp, aiff_Exp, aiff_Detect, "Audio interchange", 0x01, 0x00300035, 0, nullptr, RWD},
    /* 16*/ {"aiff", aiff_Imp, aiff_Exp, aiff_Detect, "Audio interchange", 0x01, 0x00300035, 0, nullptr, RWD},
    /* 17*/ {"aifc", aiff_Imp, nullptr, aiff_Detect, "Compressed AIFF", 0x01, 0x00000000, 1, nullptr, RD},
    /* 18*/ {"ais", nullptr, nullptr, nullptr, "Velvet Studio instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 19*/ {"akai", akafd_Imp, nullptr, akai_DiskDetect, "AKAI S-series disk image", 0x11, 0x00000000, 0, nullptr, RD},
    /* 20*/ {"akp", nullptr, nullptr, akai_AkpDetect, "AKAI S5000 program", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /* 21*/ {"alaw", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "G.711 A-law", 0x01, 0x00300200, RawParameter(kRawALaw, 8), nullptr, RWD},
    /* 22*/ {"alw", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "G.711 A-law", 0x01, 0x00300200, RawParameter(kRawALaw, 8), nullptr, RWD},
    /* 23*/ {"amr", nullptr, nullptr, nullptr, "MIME AMR file storage", 0x01, 0x00120000, 0, nullptr, RWD},
    /* 24*/ {"ams", nullptr, nullptr, mod_AmsDetect, "Extreme Tracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 25*/ {"ams", nullptr, nullptr, mod_AmsDetect, "Velvet Studio module", 0x80, 0x00000000, 1, nullptr, RD},
    /* 26*/ {"ape", nullptr, ape_Exp, ape_Detect, "Monkey Audio lossless", 0x01, 0x00300015, 0, nullptr, RWD},
    /* 27*/ {"apex", nullptr, nullptr, nullptr, "AVM Sample Studio bank", 0x80, 0x00000000, 0, nullptr, RD},
    /* 28*/ {"arl", nullptr, nullptr, nullptr, "Aureal 'Aspen' bank", 0x91, 0x00000000, 0, nullptr, RD},
    /* 29*/ {"ase", nullptr, nullptr, nullptr, "Velvet Studio sample", 0x01, 0x00000000, 0, nullptr, RD},
    /* 30*/ {"asf", nullptr, nullptr, nullptr, "ActiveMovie streaming", 0x01, 0x00000000, 0, nullptr, RD},
    /* 31*/ {"atak1a", nullptr, nullptr, nullptr, "Soundscape audio-take", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /* 32*/ {"au", nullptr, nullptr, nullptr, "Sun/NeXT/DEC audio", 0x01, 0x003003F5, 0, nullptr, RWD},
    /* 33*/ {"avi", nullptr, nullptr, nullptr, "Audio video interleave", 0x01, 0x00000000, 0, nullptr, RD},
    /* 34*/ {"avr", nullptr, nullptr, nullptr, "Audio Visual Research", 0x01, 0x00000000, 0, nullptr, RD},
    /* 35*/ {"bin", nullptr, nullptr, nullptr, "Roland D-50 VST bank", 0x80, 0x00000000, 0, nullptr, RD},
    /* 36*/ {"bn4", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /* 37*/ {"bnk", nullptr, nullptr, nullptr, "AdLib bank", 0x80, 0x00000000, 0, nullptr, RD},
    /* 38*/ {"bnk", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /* 39*/ {"bnk", nullptr, nullptr, nullptr, "Yamaha DX11/TX81z voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /* 40*/ {"bwf", wav_Imp, nullptr, wav_BwfDetect, "Broadcast wave", 0x01, 0x00000000, 0, nullptr, RD},
    /* 41*/ {"c01", nullptr, nullptr, nullptr, "Typhoon wave", 0x01, 0x00000000, 0, nullptr, RD},
    /* 42*/ {"caf", nullptr, nullptr, nullptr, "Apple CoreAudio", 0x01, 0x003003F5, 0, nullptr, RWD},
    /* 43*/ {"caff", nullptr, nullptr, nullptr, "Apple CoreAudio", 0x01, 0x00000000, 0, nullptr, RD},
    /* 44*/ {"cda", nullptr, nullptr, nullptr, "Audio CD track", 0x01, 0x00000000, 0, nullptr, RD},
    /* 45*/ {"cdr", nullptr, nullptr, nullptr, "Audio CD raw data", 0x01, 0x00000000, 0, nullptr, RD},
    /* 46*/ {"cmf", nullptr, nullptr, nullptr, "Creative Labs music", 0xC0, 0x00000000, 0, nullptr, RD},
    /* 47*/ {"cod", nullptr, nullptr, nullptr, "3GPP AMR if-format 2'", 0x01, 0x00120000, 0, nullptr, RWD},
    /* 48*/ {"dbk", nullptr, nullptr, nullptr, "FXpansion DR-005 drums", 0x10, 0x00000000, 0, nullptr, RD},
    /* 49*/ {"dcm", nullptr, nullptr, nullptr, "DCM module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 50*/ {"dvd-16-44", nullptr, nullptr, nullptr, "LPCM 16-bit 44kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 51*/ {"dvd-16-48", nullptr, nullptr, nullptr, "LPCM 16-bit 48kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 52*/ {"dvd-16-96", nullptr, nullptr, nullptr, "LPCM 16-bit 96kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 53*/ {"dvd-16-192", nullptr, nullptr, nullptr, "LPCM 16-bit 192kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 54*/ {"dvd-24-44", nullptr, nullptr, nullptr, "LPCM 24-bit 44kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 55*/ {"dvd-24-48", nullptr, nullptr, nullptr, "LPCM 24-bit 48kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 56*/ {"dvd-24-96", nullptr, nullptr, nullptr, "LPCM 24-bit 96kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 57*/ {"dvd-24-192", nullptr, nullptr, nullptr, "LPCM 24-bit 192kHz stereo", 0x01, 0x00000000, 0, nullptr, RD},
    /* 58*/ {"dewf", nullptr, nullptr, nullptr, "SoundCap/SoundEdit", 0x01, 0x00000000, 0, nullptr, RD},
    /* 59*/ {"dig", nullptr, nullptr, nullptr, "Digilink", 0x01, 0x00000000, 0, nullptr, RD},
    /* 60*/ {"dig", nullptr, nullptr, nullptr, "Sound Designer I", 0x01, 0x00000000, 0, nullptr, RD},
    /* 61*/ {"dlp", nullptr, nullptr, nullptr, "DirectMusic Producer", 0x80, 0x00000000, 0, nullptr, RD},
    /* 62*/ {"dls", dls_Imp, nullptr, dls_Detect, "DownLoadable Sounds", 0x80, 0x00000000, 0, nullptr, RD},
    /* 63*/ {"dls", nullptr, dls_Exp, nullptr, "DownLoadable Sounds level 1", 0x91, 0x00100005, 1, nullptr, W_},
    /* 64*/ {"dls", nullptr, dls_Exp, nullptr, "DownLoadable Sounds level 2", 0x91, 0x00100005, 2, nullptr, W_},
    /* 65*/ {"dls", nullptr, dls_Exp, nullptr, "DownLoadable Sounds level 2+", 0x91, 0x00127F75, 3, nullptr, W_},
    /* 66*/ {"dls", nullptr, dls_Exp, nullptr, "DownLoadable Sounds level 2++", 0x91, 0x00327F75, 4, nullptr, W_},
    /* 67*/ {"dmf", nullptr, nullptr, mod_DmfDetect, "XTracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 68*/ {"dmg", akafd_Imp, nullptr, akai_DiskDetect, "ChkSys AKAI S-series", 0x11, 0x00000000, 1, nullptr, RD},
    /* 69*/ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums", 0x10, 0x00000000, 0, nullptr, RD},
    /* 70*/ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums, Embedded WAVs", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /* 71*/ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums, External WAVs", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /* 72*/ {"dro", nullptr, nullptr, nullptr, "DOSBox Raw OP", 0x80, 0x00000000, 0, nullptr, RD},
    /* 73*/ {"dsf", nullptr, nullptr, nullptr, "XTracker sample", 0x01, 0x00000000, 0, nullptr, RD},
    /* 74*/ {"dsm", nullptr, nullptr, mod_DsmDetect, "Digital Sound Module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 75*/ {"dspreset", nullptr, nullptr, nullptr, "Decent Sampler Preset", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /* 76*/ {"dtm", nullptr, nullptr, nullptr, "DigiTrekker module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 77*/ {"dwd", nullptr, nullptr, nullptr, "DiamondWare digitized", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /* 78*/ {"dx7", nullptr, nullptr, nullptr, "Yamaha DX7 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /* 79*/ {"dx7", nullptr, nullptr, nullptr, "Raw Yamaha DX7 32-voice", 0x80, 0x00000000, 0, nullptr, RD},
    /* 80*/ {"eda", nullptr, nullptr, nullptr, "Ensoniq ASR disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 81*/ {"ede", nullptr, nullptr, nullptr, "Ensoniq EPS disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 82*/ {"edk", nullptr, nullptr, nullptr, "Ensoniq KT disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 83*/ {"edm", nullptr, nullptr, nullptr, "Ensoniq Mirage disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 84*/ {"edq", nullptr, nullptr, nullptr, "Ensoniq SQ1/SQ2/KS32 disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 85*/ {"edv", nullptr, nullptr, nullptr, "Ensoniq VFX-SD disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 86*/ {"edx", nullptr, nullptr, nullptr, "Ensoniq disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /* 87*/ {"efa", nullptr, nullptr, nullptr, "Ensoniq ASR instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 88*/ {"efe", nullptr, nullptr, nullptr, "Ensoniq EPS instrument", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /* 89*/ {"efk", nullptr, nullptr, nullptr, "Ensoniq KT instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 90*/ {"efq", nullptr, nullptr, nullptr, "Ensoniq SQ1/SQ2/KS32 instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 91*/ {"efs", nullptr, nullptr, nullptr, "Ensoniq SQ80 instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 92*/ {"efv", nullptr, nullptr, nullptr, "Ensoniq VFX-SD instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 93*/ {"efx", nullptr, nullptr, nullptr, "Ensoniq instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /* 94*/ {"emb", nullptr, nullptr, nullptr, "Everest embedded bank", 0x90, 0x00000000, 0, nullptr, RD},
    /* 95*/ {"emd", nullptr, nullptr, nullptr, "ABT extended module", 0x80, 0x00000000, 0, nullptr, RD},
    /* 96*/ {"emy", nullptr, nullptr, nullptr, "EMelody ring-tone", 0x60, 0x00080000, 0, nullptr, RWD},
    /* 97*/ {"emy", nullptr, nullptr, nullptr, "EMelody simplified", 0x60, 0x00080000, 0, nullptr, W_},
    /* 98*/ {"esps", nullptr, nullptr, nullptr, "ESPS", 0x01, 0x00000000, 0, nullptr, RD},
    /* 99*/ {"eui", nullptr, nullptr, nullptr, "Ensoniq EPS/ASR-10 disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*100*/ {"exs", nullptr, nullptr, nullptr, "Logic EXS24 instrument", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*101*/ {"f2r", nullptr, nullptr, nullptr, "Farandole linear module", 0x80, 0x00000000, 0, nullptr, RD},
    /*102*/ {"f32", nullptr, nullptr, nullptr, "Floating point (32-bit)", 0x01, 0x00300040, 0, nullptr, RWD},
    /*103*/ {"f3r", nullptr, nullptr, nullptr, "Farandole blocked linear module", 0x80, 0x00000000, 0, nullptr, RD},
    /*104*/ {"f64", nullptr, nullptr, nullptr, "Floating point (64-bit)", 0x01, 0x00300080, 0, nullptr, RWD},
    /*105*/ {"far", nullptr, nullptr, mod_FarDetect, "Farandole module", 0x80, 0x00000000, 0, nullptr, RD},
    /*106*/ {"fff", nullptr, nullptr, nullptr, "Gravis UltraSound PnP", 0x80, 0x00000000, 0, nullptr, RD},
    /*107*/ {"flac", flac_Imp, nullptr, flac_Detect, "Free lossless audio codec", 0x01, 0x00000000, 0, nullptr, RD},
    /*108*/ {"flac", nullptr, flac_Exp, nullptr, "Free lossless audio codec (default)", 0x01, 0x00300015, 5, nullptr, W_},
    /*109*/ {"flac", nullptr, flac_Exp, nullptr, "Free lossless audio codec (max comp)", 0x01, 0x00300015, 8, nullptr, W_},
    /*110*/ {"fnk", nullptr, nullptr, nullptr, "FunkTracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*111*/ {"for", nullptr, nullptr, nullptr, "Kurzweil Forte", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*112*/ {"fsb", nullptr, nullptr, nullptr, "FMOD SoundSystem bank", 0x01, 0x00000000, 0, nullptr, RD},
    /*113*/ {"fse", nullptr, nullptr, nullptr, "Kurzweil Forte SE", 0x91, 0x00000000, 0, nullptr, RD},
    /*114*/ {"fsm", nullptr, nullptr, nullptr, "Farandole sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*115*/ {"fzb", nullptr, nullptr, nullptr, "Casio FZ-1 bank dump", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*116*/ {"fzf", nullptr, nullptr, nullptr, "Casio FZ-1 full dump", 0x80, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*117*/ {"fzv", nullptr, nullptr, nullptr, "Casio FZ-1 voice dump", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*118*/ {"g01", nullptr, nullptr, nullptr, "Yamaha SY85 all", 0x01, 0x00000000, 0, nullptr, RD},
    /*119*/ {"g721", raw_CodedImp, nullptr, raw_CodedDetect, "G.721 ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 4), nullptr, RD},
    /*120*/ {"g721", nullptr, raw_CodedExp, nullptr, "G.721 ADPCM - Big Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4), nullptr, W_},
    /*121*/ {"g721", nullptr, raw_CodedExp, nullptr, "G.721 ADPCM - Little Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4, true), nullptr, W_},
    /*122*/ {"g721-4", raw_CodedImp, nullptr, raw_CodedDetect, "G.721 4-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 4), nullptr, RD},
    /*123*/ {"g721-4", nullptr, raw_CodedExp, nullptr, "G.721 ADPCM - Big Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4), nullptr, W_},
    /*124*/ {"g721-4", nullptr, raw_CodedExp, nullptr, "G.721 ADPCM - Little Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4, true), nullptr, W_},
    /*125*/ {"g722", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 ADPCM", 0x01, 0x00000000, RawParameter(kRawG722, 8, false, 16000), nullptr, RD},
    /*126*/ {"g722", nullptr, nullptr, nullptr, "G.726 ADPCM - Big Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*127*/ {"g722", nullptr, nullptr, nullptr, "G.726 ADPCM - Little Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*128*/ {"g722-6", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 48 kbit/s ADPCM", 0x01, 0x00000000, RawParameter(kRawG722, 6, false, 16000), nullptr, RD},
    /*129*/ {"g722-6", nullptr, nullptr, nullptr, "G.726 48 kbit/s ADPCM - Big Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*130*/ {"g722-6", nullptr, nullptr, nullptr, "G.726 48 kbit/s ADPCM - Little Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*131*/ {"g722-7", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 56 kbit/s ADPCM", 0x01, 0x00000000, RawParameter(kRawG722, 7, false, 16000), nullptr, RD},
    /*132*/ {"g722-7", nullptr, nullptr, nullptr, "G.726 56 kbit/s ADPCM - Big Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*133*/ {"g722-7", nullptr, nullptr, nullptr, "G.726 56 kbit/s ADPCM - Little Endian", 0x01, 0x00000000, 0, nullptr, W_},  // code width of this G.72x variant unknown
    /*134*/ {"g722-8", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "G.726 64 kbit/ ADPCM", 0x01, 0x00102000, RawParameter(kRawG722, 8, false, 16000), nullptr, RWD},  // G.722 code words of 8 bits
    /*135*/ {"g723", raw_CodedImp, nullptr, raw_CodedDetect, "G.723 ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 3), nullptr, RD},
    /*136*/ {"g723", nullptr, raw_CodedExp, nullptr, "G.723 ADPCM - Big Endian", 0x01, 0x00105000, RawParameter(kRawCcitt, 3), nullptr, W_},
    /*137*/ {"g723", nullptr, raw_CodedExp, nullptr, "G.723 ADPCM - Little Endian", 0x01, 0x00105000, RawParameter(kRawCcitt, 3, true), nullptr, W_},
    /*138*/ {"g723-3", raw_CodedImp, nullptr, raw_CodedDetect, "G.723 3-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 3), nullptr, RD},
    /*139*/ {"g723-3", nullptr, raw_CodedExp, nullptr, "G.723 3-bit ADPCM - Big Endian", 0x01, 0x00101000, RawParameter(kRawCcitt, 3), nullptr, W_},
    /*140*/ {"g723-3", nullptr, raw_CodedExp, nullptr, "G.723 3-bit ADPCM - Little Endian", 0x01, 0x00101000, RawParameter(kRawCcitt, 3, true), nullptr, W_},
    /*141*/ {"g723-5", raw_CodedImp, nullptr, raw_CodedDetect, "G.723 5-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 5), nullptr, RD},
    /*142*/ {"g723-5", nullptr, raw_CodedExp, nullptr, "G.723 5-bit ADPCM - Big Endian", 0x01, 0x00104000, RawParameter(kRawCcitt, 5), nullptr, W_},
    /*143*/ {"g723-5", nullptr, raw_CodedExp, nullptr, "G.723 5-bit ADPCM - Little Endian", 0x01, 0x00104000, RawParameter(kRawCcitt, 5, true), nullptr, W_},
    /*144*/ {"g726", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 4), nullptr, RD},
    /*145*/ {"g726", nullptr, raw_CodedExp, nullptr, "G.726 ADPCM - Big Endian", 0x01, 0x00107800, RawParameter(kRawCcitt, 4), nullptr, W_},
    /*146*/ {"g726", nullptr, raw_CodedExp, nullptr, "G.726 ADPCM - Little Endian", 0x01, 0x00107800, RawParameter(kRawCcitt, 4, true), nullptr, W_},
    /*147*/ {"g726-2", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 2-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 2), nullptr, RD},
    /*148*/ {"g726-2", nullptr, raw_CodedExp, nullptr, "G.726 2-bit ADPCM - Big Endian", 0x01, 0x00100800, RawParameter(kRawCcitt, 2), nullptr, W_},
    /*149*/ {"g726-2", nullptr, raw_CodedExp, nullptr, "G.726 2-bit ADPCM - Little Endian", 0x01, 0x00100800, RawParameter(kRawCcitt, 2, true), nullptr, W_},
    /*150*/ {"g726-3", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 3-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 3), nullptr, RD},
    /*151*/ {"g726-3", nullptr, raw_CodedExp, nullptr, "G.726 3-bit ADPCM - Big Endian", 0x01, 0x00101000, RawParameter(kRawCcitt, 3), nullptr, W_},
    /*152*/ {"g726-3", nullptr, raw_CodedExp, nullptr, "G.726 3-bit ADPCM - Little Endian", 0x01, 0x00101000, RawParameter(kRawCcitt, 3, true), nullptr, W_},
    /*153*/ {"g726-4", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 4-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 4), nullptr, RD},
    /*154*/ {"g726-4", nullptr, raw_CodedExp, nullptr, "G.726 4-bit ADPCM - Big Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4), nullptr, W_},
    /*155*/ {"g726-4", nullptr, raw_CodedExp, nullptr, "G.726 4-bit ADPCM - Little Endian", 0x01, 0x00102000, RawParameter(kRawCcitt, 4, true), nullptr, W_},
    /*156*/ {"g726-5", raw_CodedImp, nullptr, raw_CodedDetect, "G.726 5-bit ADPCM", 0x01, 0x00000000, RawParameter(kRawCcitt, 5), nullptr, RD},
    /*157*/ {"g726-5", nullptr, raw_CodedExp, nullptr, "G.726 5-bit ADPCM - Big Endian", 0x01, 0x00104000, RawParameter(kRawCcitt, 5), nullptr, W_},
    /*158*/ {"g726-5", nullptr, raw_CodedExp, nullptr, "G.726 5-bit ADPCM - Little Endian", 0x01, 0x00104000, RawParameter(kRawCcitt, 5, true), nullptr, W_},
    /*159*/ {"gdm", nullptr, nullptr, mod_GdmDetect, "Bells, Whistles, Sound Boards module", 0x80, 0x00000000, 0, nullptr, RD},
    /*160*/ {"gig", gig_Imp, nullptr, dls_GigDetect, "GigaStudio/GigaSampler", 0x91, 0x00000000, 0, nullptr, RD},
    /*161*/ {"gig", nullptr, gig_Exp, nullptr, "GigaStudio v1 - Normal", 0x91, 0x00300004, 0, nullptr, W_},
    /*162*/ {"gig", nullptr, gig_Exp, nullptr, "GigaStudio v1 - Compressed", 0x91, 0x00300004, 1, nullptr, W_},
    /*163*/ {"gig", nullptr, gig_Exp, nullptr, "GigaStudio v3 - Normal", 0x91, 0x00300014, 2, nullptr, W_},
    /*164*/ {"gig", nullptr, gig_Exp, nullptr, "GigaStudio v3 - Compressed", 0x91, 0x00300014, 3, nullptr, W_},
    /*165*/ {"gi!", nullptr, nullptr, dls_GigSplitDetect, "GigaStudio/GSImport split", 0x80, 0x00000000, 0, nullptr, RD},
    /*166*/ {"gkh", nullptr, nullptr, nullptr, "Ensoniq EPS disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*167*/ {"gsm", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Raw GSM 06.10", 0x01, 0x00100400, RawParameter(kRawGsm, 0), nullptr, RWD},
    /*168*/ {"gsm", nullptr, nullptr, nullptr, "Raw GSM 06.10 'byte aligned'", 0x01, 0x00100400, 0, nullptr, RWD},
    /*169*/ {"gsm", nullptr, nullptr, nullptr, "USR GSM without header", 0x01, 0x00100400, 0, nullptr, RWD},
    /*170*/ {"gsm", nullptr, nullptr, nullptr, "USR GSM without header (alternative)", 0x01, 0x00100400, 0, nullptr, W_},
    /*171*/ {"gsm", nullptr, nullptr, nullptr, "USR GSM with header", 0x01, 0x00100400, 0, nullptr, RWD},
    /*172*/ {"hcom", nullptr, nullptr, nullptr, "Sound Tools HCOM", 0x01, 0x00000000, 0, nullptr, RD},
    /*173*/ {"hd", nullptr, nullptr, nullptr, "PlayStation 2 SCEI set", 0x11, 0x00000000, 0, nullptr, RD},
    /*174*/ {"ibk", nullptr, nullptr, nullptr, "Creative FM bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*175*/ {"iff", nullptr, nullptr, aiff_IffDetect, "Interchange file format", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*176*/ {"imf", nullptr, nullptr, nullptr, "id Software Music Format (560Hz)", 0x80, 0x00000000, 0, nullptr, RD},
    /*177*/ {"img", nullptr, nullptr, nullptr, "Ensoniq EPS/ASR-10 disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*178*/ {"imy", nullptr, nullptr, nullptr, "iMelody ring-tone format", 0x60, 0x00000000, 0, nullptr, RD},
    /*179*/ {"imy", nullptr, nullptr, nullptr, "iMelody ring-tone - Full v1.2", 0x60, 0x00080000, 0, nullptr, W_},
    /*180*/ {"imy", nullptr, nullptr, nullptr, "iMelody - Simplified v1.0", 0x60, 0x00080000, 0, nullptr, W_},
    /*181*/ {"ini", nullptr, nullptr, nullptr, "Gravis ini bank setup + .PAT's", 0x80, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*182*/ {"ini", nullptr, nullptr, nullptr, "IBM MWave DSP synth", 0x80, 0x00000000, 0, nullptr, RD},
    /*183*/ {"inrs", nullptr, nullptr, nullptr, "INRS-Telecommunications", 0x01, 0x00000000, 0, nullptr, RD},
    /*184*/ {"ins", nullptr, nullptr, nullptr, "Ad Lib instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*185*/ {"ins", nullptr, nullptr, nullptr, "Ensoniq EPS intrument", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*186*/ {"ins", nullptr, nullptr, nullptr, "Sample Cell II Mac", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*187*/ {"ins", nullptr, nullptr, nullptr, "Sample Cell II PC", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*188*/ {"ins", nullptr, nullptr, nullptr, "Cakewalk instrument definition", 0x80, 0x00040000, 0, nullptr, W_},
    /*189*/ {"iso", nullptr, nullptr, nullptr, "Sampler CD disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*190*/ {"ist", nullptr, nullptr, nullptr, "Digitrakker insrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*191*/ {"it", nullptr, nullptr, mod_ItDetect, "Impulse Tracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*192*/ {"iti", nullptr, nullptr, nullptr, "Impulse Tracker instrument", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*193*/ {"its", nullptr, nullptr, nullptr, "Impulse Tracker sample", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*194*/ {"kawai12", nullptr, nullptr, nullptr, "KAWAI R-series ROM-dump", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*195*/ {"k25", nullptr, nullptr, nullptr, "Kurzweil K2500", 0x80, 0x00000000, 0, nullptr, RD},
    /*196*/ {"k26", nullptr, nullptr, nullptr, "Kurzweil K2600", 0x80, 0x00000000, 0, nullptr, RD},
    /*197*/ {"kdt", nullptr, nullptr, nullptr, "Konami KDT1 song", 0x40, 0x00000000, 0, nullptr, RD},
    /*198*/ {"kft", nullptr, nullptr, nullptr, "Korg T-series wave", 0x10, 0x00000000, 0, nullptr, RD},
    /*199*/ {"kit", nullptr, nullptr, nullptr, "NI Battery v1 drums", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*200*/ {"kmp", nullptr, nullptr, nullptr, "Korg PA-series keymaps", 0x91, 0x00000000, 0, nullptr, RD},
    /*201*/ {"kmp", nullptr, nullptr, nullptr, "Korg keymap", 0x10, 0x00000000, 0, nullptr, RD},
    /*202*/ {"kmp", nullptr, nullptr, nullptr, "Korg Trinity keymap", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*203*/ {"kmp", nullptr, nullptr, nullptr, "Korg Triton keymap", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*204*/ {"kmp", nullptr, nullptr, nullptr, "Korg M3 keymap", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*205*/ {"kmp", nullptr, nullptr, nullptr, "Korg M3 Xpanded keymap", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*206*/ {"kmp", nullptr, nullptr, nullptr, "Korg Kronos keymap", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*207*/ {"kr1", nullptr, nullptr, nullptr, "Kurzweil K2000/K2500/K2600 split", 0xD1, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*208*/ {"krz", nullptr, nullptr, nullptr, "Kurzweil K2000 file", 0x80, 0x00000000, 0, nullptr, RD},
    /*209*/ {"krz", nullptr, nullptr, nullptr, "Kurzweil K2000/K2500/K2600", 0xD1, 0x00300004, 0, nullptr, W_},
    /*210*/ {"ksc", nullptr, nullptr, nullptr, "Korg script", 0x80, 0x00000000, 0, nullptr, RD},
    /*211*/ {"ksc", nullptr, nullptr, nullptr, "Korg Trinity script", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*212*/ {"ksc", nullptr, nullptr, nullptr, "Korg Triton script", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*213*/ {"ksc", nullptr, nullptr, nullptr, "Korg M3 script", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*214*/ {"ksc", nullptr, nullptr, nullptr, "Korg M3 Xpanded script", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*215*/ {"ksc", nullptr, nullptr, nullptr, "Korg Kronos script", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*216*/ {"ksf", nullptr, nullptr, nullptr, "Korg sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*217*/ {"ksf", nullptr, nullptr, nullptr, "Korg Trinity sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*218*/ {"ksf", nullptr, nullptr, nullptr, "Korg Triton sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*219*/ {"ksf", nullptr, nullptr, nullptr, "Korg M3 sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*220*/ {"ksf", nullptr, nullptr, nullptr, "Korg M3 Xpanded sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*221*/ {"ksf", nullptr, nullptr, nullptr, "Korg Kronos sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*222*/ {"m4a", nullptr, nullptr, nullptr, "iTunes MPEG-4 audio", 0x01, 0x00320000, 0, nullptr, RWD},
    /*223*/ {"m4r", nullptr, nullptr, nullptr, "iPhone ring-tone", 0x01, 0x00320000, 0, nullptr, RWD},
    /*224*/ {"map", nullptr, nullptr, nullptr, "NI Reaktor", 0x10, 0x00000000, 0, nullptr, RD},
    /*225*/ {"map", nullptr, nullptr, nullptr, "NI Reaktor - Embedded", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*226*/ {"map", nullptr, nullptr, nullptr, "NI Reaktor - Linked", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*227*/ {"mat", nullptr, nullptr, nullptr, "Matlab binary vars", 0x81, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*228*/ {"maud", aiff_Imp, nullptr, aiff_Detect, "MAUD sample", 0x01, 0x00000000, 2, nullptr, RD},
    /*229*/ {"mdl", nullptr, nullptr, mod_MdlDetect, "Digitrakker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*230*/ {"med", nullptr, nullptr, mod_MedDetect, "OctaMED module", 0x80, 0x00000000, 0, nullptr, RD},
    /*231*/ {"mid", mid_Read, mid_Exp, mid_Detect, "Standard MIDI", 0x60, 0x00080000, 0, nullptr, RWD},
    /*232*/ {"mka", nullptr, nullptr, nullptr, "Matriska audio", 0x01, 0x00000000, 0, nullptr, RD},
    /*233*/ {"mkv", nullptr, nullptr, nullptr, "Matriska video", 0x01, 0x00000000, 0, nullptr, RD},
    /*234*/ {"mld", nullptr, nullptr, nullptr, "i-Melody", 0x60, 0x00000000, 0, nullptr, RD},
    /*235*/ {"mls", mls_Imp, nullptr, dls_MlsDetect, "Miles Sound System", 0x91, 0x00000000, 0, nullptr, RD},
    /*236*/ {"mmf", nullptr, nullptr, nullptr, "Synthetic music mobile", 0xC0, 0x00000000, 0, nullptr, RD},
    /*237*/ {"mod", mod_Imp, nullptr, mod_Detect, "Tracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*238*/ {"mov", nullptr, nullptr, nullptr, "Apple QuickTime movie", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*239*/ {"mp1", nullptr, nullptr, nullptr, "MPEG layer I", 0x01, 0x00000000, 0, nullptr, RD},
    /*240*/ {"mp2", nullptr, nullptr, nullptr, "MPEG layer II", 0x01, 0x00000000, 0, nullptr, RD},
    /*241*/ {"mp2", nullptr, nullptr, nullptr, "MPEG layer II - CBR", 0x01, 0x00320000, 0, nullptr, W_},
    /*242*/ {"mp3", nullptr, nullptr, nullptr, "MPEG layer III", 0x01, 0x00000000, 0, nullptr, RD},
    /*243*/ {"mp3", nullptr, nullptr, nullptr, "MPEG layer III - CBR", 0x01, 0x00320000, 0, nullptr, W_},
    /*244*/ {"mp3", nullptr, nullptr, nullptr, "MPEG layer III - ABR", 0x01, 0x00320000, 1, nullptr, W_},
    /*245*/ {"mp3", nullptr, nullptr, nullptr, "MPEG layer III - VBR", 0x01, 0x00320000, 2, nullptr, W_},
    /*246*/ {"mp4", nullptr, nullptr, nullptr, "MPEG-4 base media", 0x01, 0x00320000, 0, nullptr, RWD},
    /*247*/ {"mpa", nullptr, nullptr, nullptr, "MPEG audio", 0x01, 0x00000000, 0, nullptr, RD},
    /*248*/ {"mpg", nullptr, nullptr, nullptr, "MPEG audio", 0x01, 0x00000000, 0, nullptr, RD},
    /*249*/ {"mpeg", nullptr, nullptr, nullptr, "MPEG system stream", 0x01, 0x00000000, 0, nullptr, RD},
    /*250*/ {"mpg", nullptr, nullptr, nullptr, "MPEG system stream", 0x01, 0x00000000, 0, nullptr, RD},
    /*251*/ {"mss", nullptr, nullptr, nullptr, "MSS DLS 1 + XMI", 0x40, 0x00080000, 0, nullptr, RWD},
    /*252*/ {"mt2", nullptr, nullptr, mod_Mt2Detect, "MadTracker 2 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*253*/ {"mti", nullptr, nullptr, nullptr, "MadTracker 2 instrument", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*254*/ {"mtm", nullptr, nullptr, mod_MtmDetect, "MultiTracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*255*/ {"mus", nullptr, nullptr, nullptr, "Doom/Heretic music", 0x40, 0x00000000, 0, nullptr, RD},
    /*256*/ {"mus", nullptr, nullptr, nullptr, "Musifile MPEG layer II", 0x01, 0x00000000, 0, nullptr, RD},
    /*257*/ {"mus10", nullptr, nullptr, nullptr, "Mus10", 0x01, 0x00000000, 0, nullptr, RD},
    /*258*/ {"ncw", nullptr, nullptr, nullptr, "NI Kontakt Compressed", 0x01, 0x00000000, 0, nullptr, RD},
    /*259*/ {"nist", nullptr, nullptr, nullptr, "NIST Sphere", 0x01, 0x00000000, 0, nullptr, RD},
    /*260*/ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v1 Bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*261*/ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*262*/ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*263*/ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v3 Bank (waves in subfolder)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*264*/ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v3 Bank (monolith)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*265*/ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v1 Instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*266*/ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*267*/ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*268*/ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v3 Instrument (waves in subfolder)", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*269*/ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v3 Instrument (monolith)", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*270*/ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v1 Multi", 0x80, 0x00000000, 0, nullptr, RD},
    /*271*/ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Multi", 0x80, 0x00000000, 0, nullptr, RD},
    /*272*/ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Multi", 0x80, 0x00000000, 0, nullptr, RD},
    /*273*/ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v3 Multi (waves in subfolder)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*274*/ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v3 Multi (monolith)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*275*/ {"nsmpproj", nullptr, nullptr, nullptr, "Nord Sample Editor project", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*276*/ {"nvf", nullptr, nullptr, nullptr, "Creative Labs Nomad", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*277*/ {"o01", nullptr, nullptr, nullptr, "Typhoon voice", 0x10, 0x00000000, 0, nullptr, RD},
    /*278*/ {"ogg", ogg_Imp, ogg_Exp, ogg_Detect, "Ogg Vorbis", 0x01, 0x00320000, 0, ogg_Rate, RWD},
    /*279*/ {"okt", nullptr, nullptr, mod_OktDetect, "Oktalyzer module", 0x80, 0x00000000, 0, nullptr, RD},
    /*280*/ {"opus", opus_Imp, nullptr, opus_Detect, "Opus", 0x01, 0x00000000, 0, nullptr, RD},
    /*281*/ {"opus", nullptr, opus_Exp, nullptr, "Opus (Music)", 0x01, 0x00320000, 0, opus_Rate, W_},
    /*282*/ {"opus", nullptr, opus_Exp, nullptr, "Opus (Voice)", 0x01, 0x00320000, 1, opus_Rate, W_},
    /*283*/ {"osp", nullptr, nullptr, nullptr, "Orion Sampler program", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*284*/ {"out", nullptr, nullptr, nullptr, "Roland S-5xx series floppy disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*285*/ {"out", nullptr, nullptr, nullptr, "Roland S-7xx series floppy disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*286*/ {"p", nullptr, nullptr, akai_ProgramDetect, "AKAI S900/S950 program", 0x10, 0x00000000, 9, nullptr, RD},
    /*287*/ {"p", akaip_Imp, akaip_Exp, akai_ProgramDetect, "AKAI S1000 program", 0x10, 0x00300004, 1, nullptr, RWD},
    /*288*/ {"p", akaip_Imp, akaip_Exp, akai_ProgramDetect, "AKAI S3000 program", 0x10, 0x00300004, 3, nullptr, RWD},
    /*289*/ {"p1", akaip_Imp, nullptr, akai_ProgramDetect, "AKAI S1000 program", 0x10, 0x00000000, 1, nullptr, RD},
    /*290*/ {"p3", akaip_Imp, nullptr, akai_ProgramDetect, "AKAI S3000 program", 0x10, 0x00000000, 3, nullptr, RD},
    /*291*/ {"p9", nullptr, nullptr, akai_ProgramDetect, "AKAI S900/S950 program", 0x10, 0x00100002, 9, nullptr, RWD},
    /*292*/ {"p3k", nullptr, nullptr, nullptr, "Kurzweil PC3K", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*293*/ {"pac", nullptr, nullptr, nullptr, "SB Studio II", 0x80, 0x00000000, 0, nullptr, RD},
    /*294*/ {"paf", nullptr, nullptr, nullptr, "Ensoniq PARIS", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*295*/ {"pat", nullptr, nullptr, nullptr, "Gravis Ultrasound patch", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*296*/ {"pbf", nullptr, nullptr, nullptr, "TB Pinnacle bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*297*/ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*298*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*299*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*300*/ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*301*/ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*302*/ {"pcg", nullptr, nullptr, nullptr, "Korg Oasys bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*303*/ {"pcg", nullptr, nullptr, nullptr, "Korg Kronos bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*304*/ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank - Bank A..D", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*305*/ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank - Bank C..D", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*306*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank - Bank A..E", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*307*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank - Bank C..E", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*308*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE file - Bank A..D", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*309*/ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE file - Bank C..D", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*310*/ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank - Bank A..G", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*311*/ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank - Bank D..G", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*312*/ {"pcg", nullptr, nullptr, nullptr, "Korg M3 Xpanded bank - Bank A..G", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*313*/ {"pcg", nullptr, nullptr, nullptr, "Korg M3 Xpanded bank - Bank D..G", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*314*/ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank - Bank A..E", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*315*/ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank - Bank C..E", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*316*/ {"pcg", nullptr, nullptr, nullptr, "Korg Kronos bank", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*317*/ {"pcm", nullptr, nullptr, nullptr, "Korg PA-series PCM wave set", 0x91, 0x00000000, 0, nullptr, RD},
    /*318*/ {"pcm", nullptr, nullptr, nullptr, "OKI MSM6376 PCM", 0x01, 0x00000000, 0, nullptr, RD},
    /*319*/ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC1000 program", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*320*/ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000 program", 0x11, 0x00000000, 0, nullptr, RD},
    /*321*/ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000XL program", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*322*/ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000 program", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*323*/ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC3000 program", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*324*/ {"plm", nullptr, nullptr, nullptr, "DisorderTracker2 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*325*/ {"pls", nullptr, nullptr, nullptr, "DisorderTracker2 sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*326*/ {"ppf", nullptr, nullptr, nullptr, "TB Pinnacle program", 0x10, 0x00000000, 0, nullptr, RD},
    /*327*/ {"prg", nullptr, nullptr, nullptr, "WAVmaker program", 0x10, 0x00000000, 0, nullptr, RD},
    /*328*/ {"psb", nullptr, nullptr, nullptr, "TB Pinnacle bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*329*/ {"psion", nullptr, nullptr, nullptr, "PSION A-law", 0x01, 0x00000000, 0, nullptr, RD},
    /*330*/ {"psm", nullptr, nullptr, mod_PsmDetect, "Protracker Studio module", 0x80, 0x00000000, 0, nullptr, RD},
    /*331*/ {"ptm", nullptr, nullptr, mod_PtmDetect, "Poly Tracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*332*/ {"raw", nullptr, nullptr, nullptr, "Signed 8-bit PCM", 0x01, 0x00000000, 0, nullptr, RD},
    /*333*/ {"raw", nullptr, nullptr, nullptr, "Rdos Raw OPL capture", 0x80, 0x00000000, 0, nullptr, RD},
    /*334*/ {"rif", wav_Imp, nullptr, wav_RockwellDetect, "Rockwell ADPCM (HotFax/Quicklink)", 0x01, 0x00000000, 0, nullptr, RD},
    /*335*/ {"rol", nullptr, nullptr, nullptr, "AdLib Visual Composer song", 0x40, 0x00000000, 0, nullptr, RD},
    /*336*/ {"rom", nullptr, nullptr, nullptr, "Roland D-50 PCM ROM", 0x01, 0x00000000, 0, nullptr, RD},
    /*337*/ {"rom", nullptr, nullptr, nullptr, "Roland MT-32 PCM ROM", 0x01, 0x00000000, 0, nullptr, RD},
    /*338*/ {"rom", nullptr, nullptr, nullptr, "Roland MT-32 Control ROM", 0x11, 0x00000000, 0, nullptr, RD},
    /*339*/ {"rmi", rmid_Imp, nullptr, rmid_Detect, "RIFF-MIDI (DLS optional)", 0x60, 0x00000000, 0, nullptr, RD},
    /*340*/ {"rmi", nullptr, rmid_Exp, nullptr, "RIFF-MIDI w no instruments", 0x60, 0x00080000, 0, nullptr, W_},
    /*341*/ {"rmi", nullptr, rmid_Exp, nullptr, "RIFF-MIDI w DLS level 1 instruments", 0x60, 0x00080000, 1, nullptr, W_},
    /*342*/ {"rmi", nullptr, rmid_Exp, nullptr, "RIFF-MIDI w DLS level 2 instruments", 0x60, 0x00080000, 2, nullptr, W_},
    /*343*/ {"rockwell", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Rockwell ADPCM", 0x01, 0x00103800, RawParameter(kRawRockwell, 4), nullptr, RWD},
    /*344*/ {"rockwell-2", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Rockwell 2-bit ADPCM", 0x01, 0x00100800, RawParameter(kRawRockwell, 2), nullptr, RWD},
    /*345*/ {"rockwell-3", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Rockwell 3-bit ADPCM", 0x01, 0x00101000, RawParameter(kRawRockwell, 3), nullptr, RWD},
    /*346*/ {"rockwell-4", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Rockwell 4-bit ADPCM", 0x01, 0x00102000, RawParameter(kRawRockwell, 4), nullptr, RWD},
    /*347*/ {"s", nullptr, nullptr, akai_SampleDetect, "AKAI S900/S950 sample", 0x01, 0x00000000, 9, nullptr, RD},
    /*348*/ {"s", akais_Imp, akais_Exp, akai_SampleDetect, "AKAI S1000 sample", 0x01, 0x00100004, 1, nullptr, RWD},
    /*349*/ {"s", akais_Imp, akais_Exp, akai_SampleDetect, "AKAI S3000 sample", 0x01, 0x00100004, 3, nullptr, RWD},
    /*350*/ {"s1", akais_Imp, nullptr, akai_SampleDetect, "AKAI S1000 sample", 0x01, 0x00000000, 1, nullptr, RD},
    /*351*/ {"s3", akais_Imp, nullptr, akai_SampleDetect, "AKAI S3000 sample", 0x01, 0x00000000, 3, nullptr, RD},
    /*352*/ {"s9", nullptr, nullptr, akai_SampleDetect, "AKAI S900/S950 sample", 0x01, 0x00100002, 9, nullptr, RWD},
    /*353*/ {"s1a", nullptr, nullptr, nullptr, "Yamaha EX5 all", 0x01, 0x00000000, 0, nullptr, RD},
    /*354*/ {"s1m", nullptr, nullptr, nullptr, "Yamaha EX5 waves", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*355*/ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices", 0x80, 0x00000000, 0, nullptr, RD},
    /*356*/ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices (RAM samples)", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*357*/ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices (FLASH samples)", 0x90, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*358*/ {"s3i", nullptr, nullptr, nullptr, "ScreamTracker v3 sample", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*359*/ {"s3m", nullptr, nullptr, mod_S3mDetect, "ScreamTracker v3 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*360*/ {"s3p", nullptr, nullptr, nullptr, "AKAI MESA II/PC S-series program", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*361*/ {"sam", nullptr, nullptr, nullptr, "Signed 8-bit PCM", 0x01, 0x00000000, 0, nullptr, RD},
    /*362*/ {"sb", nullptr, nullptr, nullptr, "Signed bytes (8-bit)", 0x01, 0x00300001, 0, nullptr, RWD},
    /*363*/ {"sbk", sbk_Imp, sbk_Exp, sf2_Detect, "SoundFont v1", 0x91, 0x00100004, 1, nullptr, RWD},
    /*364*/ {"sbi", nullptr, nullptr, nullptr, "Creative FM instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*365*/ {"sd", nullptr, nullptr, nullptr, "Sound Designer I", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*366*/ {"sc2", nullptr, nullptr, nullptr, "Sample Cell II PC", 0x11, 0x00000000, 0, nullptr, RD},
    /*367*/ {"sd2", nullptr, nullptr, nullptr, "Sound Designer II data", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*368*/ {"sd2", nullptr, nullptr, nullptr, "Sound Designer II flat", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*369*/ {"sdk", nullptr, nullptr, nullptr, "Roland S-5xx disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*370*/ {"sdk", nullptr, nullptr, nullptr, "Roland S-7xx disk image", 0x80, 0x00000000, 0, nullptr, RD},
    /*371*/ {"sds", nullptr, nullptr, nullptr, "MIDI SDS", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*372*/ {"sds", wav_Imp, nullptr, wav_SdsDetect, "SmartSound SDS", 0x01, 0x00000000, 0, nullptr, RD},
    /*373*/ {"sdw", nullptr, nullptr, nullptr, "Signed dwords (32-bit)", 0x01, 0x00000000, 0, nullptr, RD},
    /*374*/ {"seq", nullptr, nullptr, nullptr, "PlayStation music", 0x60, 0x00080000, 0, nullptr, RWD},
    /*375*/ {"sdx", nullptr, nullptr, nullptr, "SDX compact MIDI SDS", 0x01, 0x00000000, 0, nullptr, RD},
    /*376*/ {"sf", nullptr, nullptr, nullptr, "IRCAM / MTU sound", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*377*/ {"sf2", sf2_Imp, sf2_Exp, sf2_Detect, "SoundFont v2 bank", 0x91, 0x00100014, 0, nullptr, RWD},
    /*378*/ {"sf2pack", nullptr, nullptr, sf2_PackDetect, "MIDI Converter Studio", 0x80, 0x00000000, 0, nullptr, RD},
    /*379*/ {"sf3", sf2_Imp, nullptr, sf2_Detect, "Compressed SoundFont", 0x91, 0x00120000, 3, nullptr, RWD},
    /*380*/ {"sfark", nullptr, nullptr, sf2_SfArkDetect, "Melody Machine SF", 0x80, 0x00000000, 0, nullptr, RD},
    /*381*/ {"sfd", nullptr, nullptr, nullptr, "SoundStage data", 0x01, 0x00000000, 0, nullptr, RD},
    /*382*/ {"sfi", nullptr, nullptr, nullptr, "SoundStage info", 0x01, 0x00000000, 0, nullptr, RD},
    /*383*/ {"sfr", nullptr, nullptr, nullptr, "Sonic Foundry sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*384*/ {"sfz", sfz_Imp, nullptr, sfz_Detect, "SFZ instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*385*/ {"sfz", nullptr, sfz_Exp, nullptr, "rgc:audio SFZ v1 (waves in same folder)", 0x11, 0x00327F75, 0, nullptr, W_},
    /*386*/ {"sfz", nullptr, sfz_Exp, nullptr, "rgc:audio SFZ v1 (waves in sub-folder)", 0x11, 0x00327F75, 1, nullptr, W_},
    /*387*/ {"sfz", nullptr, sfz_Exp, nullptr, "Cakewalk SFZ v2 (waves in same folder)", 0x11, 0x00327F75, 2, nullptr, W_},
    /*388*/ {"sfz", nullptr, sfz_Exp, nullptr, "Cakewalk SFZ v2 (waves in sub-folder)", 0x11, 0x00327F75, 3, nullptr, W_},
    /*389*/ {"shn", nullptr, nullptr, nullptr, "Shorten lossless", 0x01, 0x00300005, 0, nullptr, RWD},
    /*390*/ {"smd", nullptr, nullptr, nullptr, "J-Phone / SmdEd song", 0x40, 0x00000000, 0, nullptr, RD},
    /*391*/ {"smp", nullptr, nullptr, nullptr, "AdLib Gold sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*392*/ {"smp", nullptr, nullptr, nullptr, "Samplevision", 0x01, 0x00000000, 0, nullptr, RD},
    /*393*/ {"smp", nullptr, nullptr, nullptr, "Avalon sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*394*/ {"snd", nullptr, nullptr, nullptr, "Unsigned 8-bit PCM", 0x01, 0x00000000, 0, nullptr, RD},
    /*395*/ {"snd", nullptr, nullptr, nullptr, "AKAI MPC sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*396*/ {"snd", nullptr, nullptr, nullptr, "AKAI MPC60 'type 0' sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*397*/ {"snd", nullptr, nullptr, nullptr, "AKAI MPC60 'type 2' sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*398*/ {"snd", nullptr, nullptr, nullptr, "AKAI MPC2000 'type 4' sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*399*/ {"snd", nullptr, nullptr, nullptr, "AKAI MPC3000 'type 2' sample", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*400*/ {"sndr", nullptr, nullptr, nullptr, "Sounder", 0x01, 0x00000000, 0, nullptr, RD},
    /*401*/ {"sndt", nullptr, nullptr, nullptr, "Sndtool", 0x01, 0x00000000, 0, nullptr, RD},
    /*402*/ {"sou", nullptr, nullptr, nullptr, "SB Studio II", 0x80, 0x00000000, 0, nullptr, RD},
    /*403*/ {"spd", nullptr, nullptr, nullptr, "Speech data", 0x01, 0x00000000, 0, nullptr, RD},
    /*404*/ {"spl", nullptr, nullptr, nullptr, "Digitrakker sample", 0x01, 0x00000000, 0, nullptr, RD},
    /*405*/ {"sppack", nullptr, nullptr, nullptr, "SPPack sample", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*406*/ {"sq", nullptr, nullptr, nullptr, "PlayStation 2 SCEI sequence", 0x40, 0x00000000, 0, nullptr, RD},
    /*407*/ {"ss2", nullptr, nullptr, nullptr, "PlayStation 2 sound", 0x01, 0x00000000, 0, nullptr, RD},
    /*408*/ {"stm", nullptr, nullptr, mod_StmDetect, "ScreamTracker v2 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*409*/ {"sts", nullptr, nullptr, nullptr, "Creamware STS program", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*410*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v0", 0x40, 0x00000000, 0, nullptr, RD},
    /*411*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v1", 0x40, 0x00000000, 0, nullptr, RD},
    /*412*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v2", 0x40, 0x00000000, 0, nullptr, RD},
    /*413*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v3", 0x40, 0x00000000, 0, nullptr, RD},
    /*414*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v4", 0x40, 0x00000000, 0, nullptr, RD},
    /*415*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer 'STcf'", 0x40, 0x00000000, 0, nullptr, RD},
    /*416*/ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer 'RSVQ'", 0x40, 0x00000000, 0, nullptr, RD},
    /*417*/ {"svx", nullptr, nullptr, aiff_IffDetect, "Interchange file format", 0x01, 0x00000000, 0, nullptr, RD},
    /*418*/ {"sw", nullptr, nullptr, nullptr, "Signed words (16-bit) - Little Endian", 0x01, 0x00300004, 0, nullptr, RWD},
    /*419*/ {"sw", nullptr, nullptr, nullptr, "Signed words (16-bit) - Big Endian", 0x01, 0x00300004, 0, nullptr, W_},
    /*420*/ {"sxt", nullptr, nullptr, nullptr, "Propellerheads Reason 2 NN-XT", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*421*/ {"syx", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*422*/ {"syx", nullptr, nullptr, nullptr, "Yamaha DX11/TX81z voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*423*/ {"syx", nullptr, nullptr, nullptr, "Yamaha DX7 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*424*/ {"syx", nullptr, nullptr, nullptr, "Yamaha DX7II/DX200 voice SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*425*/ {"syx", nullptr, nullptr, nullptr, "Roland D-50 patch SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*426*/ {"syx", nullptr, nullptr, nullptr, "Roland MT-32 SysEx", 0x80, 0x00000000, 0, nullptr, RD},
    /*427*/ {"t01", nullptr, nullptr, nullptr, "Yamaha SY99 all", 0x01, 0x00000000, 0, nullptr, RD},
    /*428*/ {"tak1a", nullptr, nullptr, nullptr, "Soundscape audio-take", 0x01, 0x00000000, 0, nullptr, RD},
    /*429*/ {"tvd", nullptr, nullptr, nullptr, "Yamaha Tyros 2 drums", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*430*/ {"tvn", nullptr, nullptr, nullptr, "Yamaha Tyros 2 voices", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*431*/ {"txbank", nullptr, nullptr, nullptr, "Cwitec TX16Wx bank", 0x80, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*432*/ {"txprog", nullptr, nullptr, nullptr, "Cwitec TX16Wx program", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*433*/ {"txt", nullptr, txt_Exp, nullptr, "Ascii text parameter descriptions", 0xF3, 0x00040000, 0, nullptr, W_},
    /*434*/ {"txt", nullptr, nullptr, nullptr, "Ascii text audio", 0x01, 0x00340000, 0, nullptr, RWD},
    /*435*/ {"txt", nullptr, nullptr, nullptr, "Nokring ring-tone", 0x60, 0x00080000, 0, nullptr, RWD},
    /*436*/ {"txt", nullptr, nullptr, nullptr, "Steinberg LM-4 bank", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*437*/ {"u255law", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Exponential mu-law", 0x01, 0x00300100, RawParameter(kRawMuLaw, 8), nullptr, RWD},
    /*438*/ {"uasset", nullptr, nullptr, nullptr, "Unreal Engine asset", 0x01, 0x00000000, 0, nullptr, RD},
    /*439*/ {"uax", nullptr, nullptr, nullptr, "Unreal Tournament", 0x80, 0x00000000, 0, nullptr, RD},
    /*440*/ {"ub", nullptr, nullptr, nullptr, "Unsigned bytes (8-bit)", 0x01, 0x00300001, 0, nullptr, RWD},
    /*441*/ {"udw", nullptr, nullptr, nullptr, "Unsigned dwords (32-bit)", 0x01, 0x00000000, 0, nullptr, RD},
    /*442*/ {"ulaw", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "G.711 mu-law", 0x01, 0x00300100, RawParameter(kRawMuLaw, 8), nullptr, RWD},
    /*443*/ {"ult", nullptr, nullptr, mod_UltDetect, "UltraTracker module", 0x80, 0x00000000, 0, nullptr, RD},
    /*444*/ {"ulw", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "G.711 mu-law", 0x01, 0x00300100, RawParameter(kRawMuLaw, 8), nullptr, RWD},
    /*445*/ {"umx", nullptr, nullptr, mod_UmxDetect, "Unreal Tournament music", 0x80, 0x00000000, 0, nullptr, RD},
    /*446*/ {"uni", nullptr, nullptr, mod_UniDetect, "MikMod Unimod", 0x80, 0x00000000, 0, nullptr, RD},
    /*447*/ {"uvd", nullptr, nullptr, nullptr, "Yamaha Tyros 3 drums", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*448*/ {"uvn", nullptr, nullptr, nullptr, "Yamaha Tyros 3 voices", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*449*/ {"uw", nullptr, nullptr, nullptr, "Unsigned words (16-bit) - Little Endian", 0x01, 0x00300004, 0, nullptr, RWD},
    /*450*/ {"uw", nullptr, nullptr, nullptr, "Unsigned words (16-bit) - Bit Endian", 0x01, 0x00300004, 0, nullptr, W_},
    /*451*/ {"uwf", nullptr, nullptr, nullptr, "UltraTracker wave", 0x01, 0x00000000, 0, nullptr, RD},
    /*452*/ {"v8", nullptr, nullptr, nullptr, "Covox 8-bit", 0x01, 0x00000000, 0, nullptr, RD},
    /*453*/ {"vab", nullptr, nullptr, nullptr, "PlayStation bank", 0x90, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*454*/ {"vag", nullptr, nullptr, nullptr, "PlayStation sound", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*455*/ {"vap", nullptr, nullptr, nullptr, "Annotated speech", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*456*/ {"vm1", nullptr, nullptr, nullptr, "Panasonic voice", 0x01, 0x00000000, 0, nullptr, RD},
    /*457*/ {"voc", nullptr, nullptr, nullptr, "SoundBlaster voice", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*458*/ {"voc", nullptr, nullptr, nullptr, "SoundBlaster voice - Old Style", 0x01, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*459*/ {"vox", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Dialogic 4-bit ADPCM", 0x01, 0x00102000, RawParameter(kRawDialogic, 4), nullptr, RWD},
    /*460*/ {"vox-6k", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Dialogic 4-bit ADPCM (6000 Hz)", 0x01, 0x00102000, RawParameter(kRawDialogic, 4, false, 6000), nullptr, RWD},
    /*461*/ {"vox-8k", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Dialogic 4-bit ADPCM (8000 Hz)", 0x01, 0x00102000, RawParameter(kRawDialogic, 4, false, 8000), nullptr, RWD},
    /*462*/ {"vox", nullptr, nullptr, nullptr, "Talking Technology Inc", 0x01, 0x00000000, 0, nullptr, RD},
    /*463*/ {"vsb", nullptr, nullptr, nullptr, "Virtual Sampler bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*464*/ {"w01", nullptr, nullptr, nullptr, "Yamaha TX16W wave", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*465*/ {"w01", nullptr, nullptr, nullptr, "Yamaha SY99 wave", 0x01, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*466*/ {"w2a", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 all", 0x01, 0x00000000, 0, nullptr, RD},
    /*467*/ {"w2v", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 voices", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*468*/ {"w2w", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 waves", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*469*/ {"w3v", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 data", 0x01, 0x00000000, 0, nullptr, RD},
    /*470*/ {"w4ksnd", nullptr, nullptr, nullptr, "Wusik 4000 instrument", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*471*/ {"w7a", nullptr, nullptr, nullptr, "Yamaha Motif ES all", 0x01, 0x00000000, 0, nullptr, RD},
    /*472*/ {"w7v", nullptr, nullptr, nullptr, "Yamaha Motif ES voices", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*473*/ {"w7w", nullptr, nullptr, nullptr, "Yamaha Motif ES waves", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*474*/ {"w8v", nullptr, nullptr, nullptr, "Yamaha Motif ES data", 0x01, 0x00000000, 0, nullptr, RD},
    /*475*/ {"w64", w64_Imp, w64_Exp, wav_W64Detect, "Wave-64", 0x01, 0x00300375, 0, nullptr, RWD},
    /*476*/ {"wav", wav_Imp, wav_Exp, wav_Detect, "Microsoft wave", 0x01, 0x00327F75, 0, nullptr, RWD},
    /*477*/ {"wav", wav_Imp, nullptr, wav_BwfDetect, "Broadcast wave", 0x01, 0x00000000, 0, nullptr, RD},
    /*478*/ {"wa!", wa_Imp, gigwav_Exp, dls_GigWaveDetect, "GigaStudio compr wave", 0x01, 0x00300014, 0, nullptr, RWD},
    /*479*/ {"wfb", nullptr, nullptr, nullptr, "TB WaveFront bank", 0x80, 0x00000000, 0, nullptr, RD},
    /*480*/ {"wfd", nullptr, nullptr, nullptr, "TB WaveFront drums", 0x80, 0x00000000, 0, nullptr, RD},
    /*481*/ {"wfp", nullptr, nullptr, nullptr, "TB WaveFront program", 0x10, 0x00000000, 0, nullptr, RD},
    /*482*/ {"wlf", nullptr, nullptr, nullptr, "iD music (700Hz)", 0x80, 0x00000000, 0, nullptr, RD},
    /*483*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio", 0x01, 0x00000000, 0, nullptr, RD},
    /*484*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 4", 0x01, 0x00320000, 0, nullptr, W_},
    /*485*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 CBR", 0x01, 0x00320000, 0, nullptr, W_},
    /*486*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 ABR", 0x01, 0x00320000, 0, nullptr, W_},
    /*487*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 VBR", 0x01, 0x00320000, 0, nullptr, W_},
    /*488*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 Voice", 0x01, 0x00320000, 0, nullptr, W_},
    /*489*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 Lossless", 0x01, 0x00320000, 0, nullptr, W_},
    /*490*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 Pro CBR 24-bit", 0x01, 0x00320000, 0, nullptr, W_},
    /*491*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 Pro ABR 24-bit", 0x01, 0x00320000, 0, nullptr, W_},
    /*492*/ {"wma", nullptr, nullptr, nullptr, "Windows Media audio 9 Pro VBR 24-bit", 0x01, 0x00320000, 0, nullptr, W_},
    /*493*/ {"wmv", nullptr, nullptr, nullptr, "Windows Media video", 0x01, 0x00000000, 0, nullptr, RD},
    /*494*/ {"wrf", nullptr, nullptr, nullptr, "Westacott WinRanX", 0x10, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*495*/ {"wrk", nullptr, nullptr, nullptr, "CakeWalk work", 0x40, 0x00000000, 0, nullptr, RD},
    /*496*/ {"wusikpack", nullptr, nullptr, nullptr, "Wusikstation pack", 0x10, 0x00000000, 0, nullptr, RD},
    /*497*/ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v3 sound", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*498*/ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v4 sound", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*499*/ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v5 sound", 0x11, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*500*/ {"x0a", nullptr, nullptr, nullptr, "Yamaha Motif XS all", 0x01, 0x00000000, 0, nullptr, RD},
    /*501*/ {"x0v", nullptr, nullptr, nullptr, "Yamaha Motif XS voices", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*502*/ {"x0w", nullptr, nullptr, nullptr, "Yamaha Motif XS waves", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*503*/ {"x3a", nullptr, nullptr, nullptr, "Yamaha Motif XF all", 0x01, 0x00000000, 0, nullptr, RD},
    /*504*/ {"x3v", nullptr, nullptr, nullptr, "Yamaha Motif XF voices", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*505*/ {"x3w", nullptr, nullptr, nullptr, "Yamaha Motif XF waves", 0x91, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*506*/ {"xpm", nullptr, nullptr, nullptr, "AKAI new MPC-line", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*507*/ {"wv", wv_Imp, wv_Exp, wv_Detect, "WavPack lossless", 0x01, 0x00300075, 0, nullptr, RWD},
    /*508*/ {"xdb", nullptr, nullptr, nullptr, "Dream SND-series bank set", 0x80, 0x00000000, 0, nullptr, RD},
    /*509*/ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (relocatable)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*510*/ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (fixed)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*511*/ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (NAND)", 0x80, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*512*/ {"xdd", nullptr, nullptr, nullptr, "Dream SND-series drum set", 0x10, 0x00000000, 0, nullptr, RD},
    /*513*/ {"xdd", nullptr, nullptr, nullptr, "Dream SND5000 drum set (standard)", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*514*/ {"xdd", nullptr, nullptr, nullptr, "Dream SND5000 drum set (NAND)", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*515*/ {"xdi", nullptr, nullptr, nullptr, "Dream SND-series instrument", 0x10, 0x00000000, 0, nullptr, RD},
    /*516*/ {"xdi", nullptr, nullptr, nullptr, "Dream SND5000 instrument (standard)", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*517*/ {"xdi", nullptr, nullptr, nullptr, "Dream SND5000 instrument (NAND)", 0x10, 0x00000000, 0, nullptr, W_},  // encodings unknown
    /*518*/ {"xi", nullptr, nullptr, nullptr, "Fast Tracker 2 instrument", 0x11, 0x00000000, 0, nullptr, RWD},  // encodings unknown
    /*519*/ {"xm", nullptr, nullptr, mod_XmDetect, "Fast Tracker 2 module", 0x80, 0x00000000, 0, nullptr, RD},
    /*520*/ {"xmi", nullptr, nullptr, nullptr, "MSS extended MIDI", 0x40, 0x00080000, 0, nullptr, RWD},
    /*521*/ {"yadpcm", raw_CodedImp, raw_CodedExp, raw_CodedDetect, "Raw Yamaha 4-bit ADPCM", 0x01, 0x00302000, RawParameter(kRawYamaha, 4), nullptr, RWD},
};
static_assert(std::size(kFormats) == kFormatCount, "row numbers are a contract");

char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool EqualNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (Upper(a[i]) != Upper(b[i])) return false;
  return true;
}

// Cuts UTF-8 text to `limit` bytes without splitting a character.
std::string_view CutUtf8(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t n = limit;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return text.substr(0, n);
}

int FindByExtension(std::string_view extension, uint32_t typeMask, bool writer) {
  for (int i = 0; i < kFormatCount; ++i) {
    const FormatEntry& row = kFormats[i];
    if (writer ? row.write == nullptr : row.read == nullptr) continue;
    if (writer && (row.typeFlags & typeMask) == 0) continue;
    if (EqualNoCase(row.extension, extension)) return i;
  }
  return -1;
}

}  // namespace

const FormatEntry* FormatTable() { return kFormats; }

const FormatEntry* FormatAt(int index) {
  return index >= 0 && index < kFormatCount ? &kFormats[index] : nullptr;
}

const char* FormatName(int index) {
  const FormatEntry* row = FormatAt(index);
  return row ? row->name : "<none>";
}

const char* FormatExtension(int index) {
  const FormatEntry* row = FormatAt(index);
  return row ? row->extension : "";
}

// By design rather than by built writer: the word says what the format can
// hold, which the import side needs even before the writer exists.
uint32_t FormatCapabilities(int index, uint32_t& parameter) {
  parameter = 0;
  if (!FormatAt(index)) return 0;
  const char* extension = kFormats[index].extension;
  for (int i = index; i < kFormatCount; ++i) {
    if (i > index && std::strcmp(kFormats[i].extension, extension) != 0) return 0;
    if (kFormats[i].design & kDesignWrite) {
      parameter = kFormats[i].parameter;
      return kFormats[i].capabilities;
    }
  }
  return 0;
}

bool FormatHoldsType(int index, int itemType) {
  const FormatEntry* row = FormatAt(index);
  return row && row->write && itemType >= 0 && itemType < 8 && ((row->typeFlags >> itemType) & 1u);
}

bool NextWriter(int& index, const char*& extension, const char*& name, uint8_t& flags, uint32_t& capabilities) {
  for (int i = std::max(index, 0); i < kFormatCount; ++i) {
    const FormatEntry& row = kFormats[i];
    if (!row.write) continue;
    index = i;
    extension = row.extension;
    name = row.name;
    flags = row.typeFlags;
    capabilities = row.capabilities;
    return true;
  }
  index = kFormatCount;
  return false;
}

bool NextReader(int& index, const char*& extension, const char*& name, uint8_t& flags) {
  for (int i = std::max(index, 0); i < kFormatCount; ++i) {
    const FormatEntry& row = kFormats[i];
    if (!row.read) continue;
    index = i;
    extension = row.extension;
    name = row.name;
    flags = row.typeFlags;
    return true;
  }
  index = kFormatCount;
  return false;
}

int FindWriterByExtension(std::string_view text, uint32_t typeMask) {
  if (!text.empty() && text.front() == '.') text.remove_prefix(1);
  return FindByExtension(CutUtf8(text, kExtensionLength), typeMask, true);
}

int FindWriterByExtension(std::u16string_view text, uint32_t typeMask) {
  if (text.size() > kExtensionLength) text = text.substr(0, kExtensionLength);
  if (!text.empty() && text.front() == u'.') text.remove_prefix(1);
  // Extensions are ASCII: anything else can only fail to match.
  char narrow[kExtensionLength];
  for (std::size_t i = 0; i < text.size(); ++i) narrow[i] = text[i] < 0x80 ? static_cast<char>(text[i]) : '\x01';
  return FindByExtension(std::string_view(narrow, text.size()), typeMask, true);
}

std::string_view PathExtension(std::string_view path) {
  const std::size_t dot = path.rfind('.');
  return CutUtf8(dot == std::string_view::npos ? path : path.substr(dot + 1), kExtensionLength);
}

int FindWriterByPath(const std::filesystem::path& path) {
  return FindByExtension(PathExtension(path.native()), 0xFF, true);
}

int FindReaderByPath(const std::filesystem::path& path) {
  return FindByExtension(PathExtension(path.native()), 0xFF, false);
}

bool MatchExtension(std::string_view pattern, std::string_view subject) {
  std::size_t j = 0;
  for (char p : pattern) {
    if (p == '*') return true;
    if (j == subject.size()) return p == '?';  // "?" also matches the end
    if (p != '?' && Upper(p) != Upper(subject[j])) return false;
    ++j;
  }
  return j == subject.size();
}

int DetectFormatInMemory(std::string_view extension, const uint8_t* data, uint32_t size, uint64_t fileSize,
                         int& confidence) {
  confidence = 0;
  // Upper-case the subject once; patterns are lower case and short.
  char subject[kExtensionLength];
  extension = CutUtf8(extension, kExtensionLength);
  for (std::size_t i = 0; i < extension.size(); ++i) subject[i] = Upper(extension[i]);
  const std::string_view upper(subject, extension.size());

  int best = -1;
  int result = -1;
  for (int i = 0; i < kFormatCount; ++i) {
    const FormatEntry& row = kFormats[i];
    // Rows readable by design take part as soon as their scorer exists, so
    // files are recognised before every reader is built.
    if (!(row.design & kDesignRead) || !row.detect) continue;
    int score = 0;
    if (MatchExtension(row.extension, upper)) score = i == 0 ? 2 : 3;
    score += row.detect(data, row.parameter, size, fileSize);
    if (score > best) {  // strictly: the earlier row wins a tie
      best = score;
      result = i;
    }
  }
  if (best <= 2) best = 0;
  confidence = best * 100 / 9;
  if (result == 0) confidence = 0;
  if (best == 0 && result >= 0 && kFormats[result].extension[0] != '*') return -1;
  return result;
}

int DetectFormat(const std::filesystem::path& path, FileRef& file, int& confidence) {
  confidence = 0;
  const uint64_t fileSize = file.Size();
  if (fileSize == 0) return -1;
  std::array<uint8_t, kDetectBytes> buffer;
  const uint64_t position = file.Tell();
  if (!file.Seek(0)) return -1;
  const std::size_t want = static_cast<std::size_t>(std::min<uint64_t>(fileSize, kDetectBytes));
  const int64_t got = file.Read(std::as_writable_bytes(std::span(buffer.data(), want)));
  file.Seek(position);
  if (got <= 0) return -1;
  return DetectFormatInMemory(PathExtension(path.native()), buffer.data(), static_cast<uint32_t>(got), fileSize,
                              confidence);
}

// ---- the desktop's file-type names (freedesktop shared MIME database) ----

namespace {

constexpr std::size_t kMaxClassName = 64;
constexpr std::size_t kMaxDisplayName = 80;

class MimeNames {
 public:
  explicit MimeNames(const std::filesystem::path& root) : root_(root) {
    std::ifstream in(root / "globs2");
    std::string line;
    // Lines are "weight:type:glob[:flags]", heaviest first: the first entry
    // of a glob wins.
    while (std::getline(in, line)) {
      if (line.empty() || line[0] == '#') continue;
      const std::size_t a = line.find(':');
      const std::size_t b = a == std::string::npos ? a : line.find(':', a + 1);
      if (b == std::string::npos) continue;
      const std::size_t c = line.find(':', b + 1);
      std::string glob = line.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1);
      const bool caseSensitive = c != std::string::npos && line.find("cs", c) != std::string::npos;
      if (glob.size() < 3 || glob[0] != '*' || glob[1] != '.' ||
          glob.find_first_of("*?[", 1) != std::string::npos)
        continue;
      if (!caseSensitive)
        for (char& ch : glob) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
      auto& map = caseSensitive ? exact_ : folded_;
      map.emplace(std::move(glob), line.substr(a + 1, b - a - 1));
    }
  }

  bool Lookup(std::string_view dotExtension, std::string& name) {
    std::string glob = "*" + std::string(dotExtension);
    auto it = exact_.find(glob);
    if (it == exact_.end()) {
      for (char& ch : glob) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
      it = folded_.find(glob);
      if (it == folded_.end()) return false;
    }
    const std::string& type = it->second;
    if (type.size() > kMaxClassName) return false;
    auto cached = comments_.find(type);
    if (cached == comments_.end()) cached = comments_.emplace(type, ReadComment(type)).first;
    if (cached->second.empty() || cached->second.size() > kMaxDisplayName) return false;
    name = cached->second;
    return true;
  }

 private:
  // The untranslated <comment> of <type>.xml, entities decoded.
  std::string ReadComment(const std::string& type) const {
    std::ifstream in(root_ / (type + ".xml"));
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t open = text.find("<comment>");
    if (open == std::string::npos) return {};
    const std::size_t start = open + 9;
    const std::size_t close = text.find("</comment>", start);
    if (close == std::string::npos) return {};
    std::string out;
    for (std::size_t i = start; i < close; ++i) {
      if (text[i] != '&') {
        out += text[i];
        continue;
      }
      static constexpr std::pair<const char*, char> kEntities[] = {
          {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
      bool decoded = false;
      for (const auto& [entity, ch] : kEntities) {
        const std::size_t length = std::strlen(entity);
        if (text.compare(i, length, entity) == 0) {
          out += ch;
          i += length - 1;
          decoded = true;
          break;
        }
      }
      if (!decoded) out += '&';
    }
    return out;
  }

  std::filesystem::path root_;
  std::unordered_map<std::string, std::string> exact_;
  std::unordered_map<std::string, std::string> folded_;
  std::unordered_map<std::string, std::string> comments_;
};

}  // namespace

bool SystemFileTypeName(std::string_view dotExtension, std::string& name) {
  static std::mutex mutex;
  static MimeNames* names = nullptr;  // built once, kept for the process
  std::lock_guard lock(mutex);
  if (!names) {
    static MimeNames instance("/usr/share/mime");
    names = &instance;
  }
  return names->Lookup(dotExtension, name);
}

void DescribeFile(const std::filesystem::path& path, std::string& name, int& confidence) {
  name.clear();
  confidence = 0;
  FileRef file;
  if (!file.OpenRead(path)) return;
  const int row = DetectFormat(path, file, confidence);
  if (row < 0) {
    name = "Unknown file type";
    confidence = 0;
    return;
  }
  name = FormatName(row);
  if (confidence > 0) return;
  const std::string_view text = path.native();
  const std::size_t dot = text.rfind('.');
  if (dot == std::string_view::npos) return;
  std::string system;
  if (SystemFileTypeName(CutUtf8(text.substr(dot), kExtensionLength), system)) name = system;
}

bool RateText(int index, int rateIndex, char* out) {
  if (out) out[0] = '\0';
  const FormatEntry* row = FormatAt(index);
  if (!row || !row->rate) return false;
  return row->rate(rateIndex, row->parameter, out) > 0.0f;
}

// ---- automatic choices of the export dialog ----

namespace {

int WaveChannels(uint32_t capabilities, const Waveform& wave) {
  if (wave.channels == 2) return capabilities & kCapStereo ? 2 : 1;
  return capabilities & kCapMono ? 1 : 2;
}

DataFormatChoice ChoiceFor(const FormatEntry& row, const Waveform& wave) {
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave.preferredFormat);
  choice.ownRate = static_cast<float>(PreferredFormatRate(wave.preferredFormat));
  choice.request = row.capabilities;
  choice.parameter = row.parameter;
  choice.rateFn = row.rate;
  return choice;
}

}  // namespace

int DefaultChannels(int index, Item& item) {
  const FormatEntry* row = FormatAt(index);
  if (!row || !row->write) return 0;
  if (const auto* wave = dynamic_cast<const Waveform*>(&item)) return WaveChannels(row->capabilities, *wave);
  const ItemSet set(item, true);
  int agreed = 0;
  for (const Waveform* wave : set.waveforms) {
    const int channels = WaveChannels(row->capabilities, *wave);
    if (agreed != 0 && channels != agreed) return 0;
    agreed = channels;
  }
  return agreed;
}

int DefaultDataFormat(int index, Item& item, std::string& text) {
  text.clear();
  const FormatEntry* row = FormatAt(index);
  if (!row) return kDataFormatNone;
  float rate = 0.0f;
  int format = kDataFormatNone;
  const auto* lone = dynamic_cast<const Waveform*>(&item);
  if (lone) format = ChooseDataFormat(ChoiceFor(*row, *lone), rate);
  const uint32_t bits = row->capabilities & kCapFormatMask;
  if (format == kDataFormatNone && bits != 0 && (bits & (bits - 1)) == 0) {
    format = LowestDataFormat(bits);
  } else if (format == kDataFormatNone && !lone) {
    const ItemSet set(item, true);
    for (std::size_t i = 0; i < set.waveforms.size(); ++i) {
      float waveRate = 0.0f;
      const int waveFormat = ChooseDataFormat(ChoiceFor(*row, *set.waveforms[i]), waveRate);
      if (i == 0) {
        format = waveFormat;
        rate = waveRate;
      } else if (waveFormat != format || (format == kDataFormatCompressed && waveRate != rate)) {
        format = kDataFormatNone;
        break;
      }
    }
  }
  if (format == kDataFormatNone) {
    text = "Mixed";
  } else if (format == kDataFormatCompressed) {
    if (row->rate && rate > 0.0f) {
      char entry[64];
      for (int i = 0; i < 1024; ++i) {
        entry[0] = '\0';
        const float listed = row->rate(i, row->parameter, entry);
        if (listed <= 0.0f) break;
        if (listed == rate) {
          text = entry;
          break;
        }
      }
    }
    if (text.empty()) text = "Compressed";
  } else {
    text = DataFormatName(format);
  }
  return format;
}

}  // namespace kv
