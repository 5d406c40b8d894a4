// What the hub and its system share by name: sockets, devices, files, properties and the ranges of
// calibration values. The daemon opens nothing else; tools and packaging take the names from here.
#pragma once

namespace shd {

// Sockets that init passes on, in the namespace of /dev/socket.
inline constexpr char kControlSocketName[] = "shdctl";
inline constexpr char kDataSocketName[] = "shddata";

inline constexpr char kUartPath[] = "/dev/ttyHSL1";

// Control files of the MCU, written only: wake-up, low-power mode, boot pins, reset line.
inline constexpr char kMcuSleepPath[] = "/proc/mcusleep/sleep";
inline constexpr char kMcuLowPowerPath[] = "/proc/mcusleep/lpm";
inline constexpr char kMcuBoot0Path[] = "/proc/mcu/gpio_mcu_boot0";
inline constexpr char kMcuBoot1Path[] = "/proc/mcu/gpio_mcu_boot1";
inline constexpr char kMcuResetPath[] = "/proc/mcu/gpio_mcu_reset";

inline constexpr char kFirmwareImagePath[] = "/system/bin/mcu.bin";  // read only

// Three little-endian int16; written from every calibration reply.
inline constexpr char kAccCalibrationPath[] = "/nvdata/accclibration";
inline constexpr int kAccCalibrationMax = 312;  // either sign

// Decimal text; read only.
inline constexpr char kBaroCalibrationPath[] = "/nvdata/BARO";
inline constexpr int kBaroCalibrationMax = 499;  // either sign

// Raw-data logs; the daemon makes the directories.
inline constexpr char kLogDataDir[] = "/data/logdata/";
inline constexpr char kRawDataDir[] = "/data/logdata/sensor/";
inline constexpr char kAlgorithmLogPath[] = "/data/logdata/sensor/alg.txt";
inline constexpr char kHeartRateLogPath[] = "/data/logdata/sensor/hrm.txt";

// Core dumps of the MCU in kDumpSlots rotating slots; the daemon does not make the directory.
// Slot N is mcudump_N, and as base64 text mcudumpbase64 for slot 0, mcudumpbase64.N for the others.
inline constexpr char kDumpDir[] = "/data/mcudumplog/";
inline constexpr char kDumpName[] = "mcudump";
inline constexpr char kDumpBase64Name[] = "mcudumpbase64";
inline constexpr int kDumpSlots = 6;

// Properties. The first four are read at start-up; three of them are written when a client changes
// the setting, the last one after each firmware update.
inline constexpr char kMcuLogProperty[] = "persist.velmar.shd.mculog";        // 0..5
inline constexpr char kDebugProperty[] = "persist.velmar.shd.debug";          // not 0: verbose
inline constexpr char kMcuRebootProperty[] = "persist.velmar.shd.mcureboot";  // not 0: forbidden
inline constexpr char kRawDataTypeProperty[] = "persist.velmar.shd.rawdatatype";  // 0..3
inline constexpr char kMcuVersionProperty[] = "persist.mcu.version";

}  // namespace shd
