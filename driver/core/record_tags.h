// Type tags that open every record the driver keeps (16-bit tag, then the 16-bit size).
#pragma once

#define SK_RECORD_SENTREL_DATA 0xFCF0
#define SK_RECORD_DEVICE_EXTENSION 0xFCF1
#define SK_RECORD_PROC_MSG_MGR 0xFCFC
#define SK_RECORD_MSG_NODE 0xFCF2
#define SK_RECORD_REGISTRATION 0xFCF3
#define SK_RECORD_IMAGE 0xFCFA
#define SK_RECORD_MSG_QUEUE 0xFCFB
#define SK_RECORD_PATH_NODE 0xFCF5
#define SK_RECORD_DOS_NAME_NODE 0xFCFD
#define SK_RECORD_DOS_NAME_MGR 0xFCFE
#define SK_RECORD_RING_BUF 0x00BB
