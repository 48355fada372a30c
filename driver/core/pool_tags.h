// Pool tags, one per kind of allocation. A tag reads in memory (and in a debugger's pool dump) as
// the four characters given in each comment.
#pragma once

#define SK_TAG_STRING_BLOCK 'usTg'   // "gTsu": counted-string blocks
#define SK_TAG_CCB 'cCTg'            // "gTCc": producer registration records
#define SK_TAG_MSG_NODE 'mnTg'       // "gTnm": message nodes
#define SK_TAG_IMAGE_RECORD 'iftG'   // "Gtfi": per-process image records
#define SK_TAG_FAST_MUTEX 'fttG'     // "Gttf": fast mutexes of the message queues
#define SK_TAG_SECURITY 'dsTg'       // "gTsd": security descriptors built from SDDL
#define SK_TAG_LOAD_GUARD 'glTg'     // "gTlg": the load guard's read-back buffer
#define SK_TAG_CALLBACK_BLOCK 'brbC'  // "Cbrb": subscriber blocks of the notification multiplexer
#define SK_TAG_PATH_NODE 'pTTg'      // "gTTp": path cache nodes (and their table's elements)
#define SK_TAG_DOS_NAME 'dntG'       // "Gtnd": DOS name table elements, drive-root name buffers
#define SK_TAG_MOUNT_MGR 'mdTg'      // "gTdm": mount manager requests and answers
#define SK_TAG_RING_ARRAY 'rsTg'     // "gTsr": the ring buffers' per-buffer arrays
#define SK_TAG_RING_MDL 'rMdL'       // "LdMr": the ring buffers' MDL blocks
#define SK_TAG_RING_BUFFER 'rbTg'    // "gTbr": the per-processor ring buffers
#define SK_TAG_PROCESS_SNAPSHOT 'pMTg'  // "gTMp": snapshots of the running processes
#define SK_TAG_MODULE_SNAPSHOT 'sMTg'   // "gTMs": snapshots of the loaded kernel modules
#define SK_TAG_MAPPED_NAME 'Mnxx'       // "xxnM": the mapped-file-name buffer of the address-space walk
#define SK_TAG_MSG_COPY 'mfTg'          // "gTfm": private copies of queued packets
#define SK_TAG_MSG_QUEUE_TABLE 'pqtG'   // "Gtqp": the message-queue table's nodes
#define SK_TAG_BROADCAST_COPY 'pKtG'    // "GtKp": a broadcast packet's copy for one queue
#define SK_TAG_PATH_RULE_NODE 'preT'    // "Terp": rule tries' nodes with their component text
#define SK_TAG_RULE_INDEX 'ireT'        // "Teri": rule tries' child indexes
#define SK_TAG_USER_HIVE_INFO 'blRl'    // "lRlb": the key-information buffer of the user-hive walk
#define SK_TAG_LOGON_NODE 'lnTg'      // "gTnl": logon table nodes
#define SK_TAG_LOGON_THREAD 'tlTg'    // "gTlt": the logon table's records of its add threads
#define SK_TAG_PROC_TABLE 'PeTg'      // "gTeP": process table elements, and image-load work items
#define SK_TAG_PROC_BLOCK 'nDTg'      // "gTDn": process node blocks before they enter the table
#define SK_TAG_IMAGE_NODE 'imTg'      // "gTmi": image table elements
#define SK_TAG_PROC_TREE 'ptiF'       // "Fitp": process-tree packages
#define SK_TAG_PROC_INFO_PACKAGE 'pciG'   // "Gicp": process-information packages
#define SK_TAG_LOGON_PACKAGE 'lgiG'       // "Gigl": logon packages
#define SK_TAG_PROC_INFO_CACHE 'pctG'     // "Gtcp": the process-information package table's elements
#define SK_TAG_LOGON_CACHE 'LcTg'         // "gTcL": the logon package table's elements
#define SK_TAG_PROC_TREE_CACHE 'pttG'     // "Gttp": the process-tree package table's elements
#define SK_TAG_EVENT_PACKET 'pKtG'        // "GtKp": the event packets the reporters build
#define SK_TAG_PRODUCER_INFO 'piTg'       // "gTip": producer drivers' registrations
#define SK_TAG_CALLER_STACK 'stIf'        // "fIts": caller-stack packages
#define SK_TAG_STACK_FRAMES 'clsk'        // "kslc": a capture's frame record
#define SK_TAG_STACK_TEXT 'tmbf'          // "fbmt": a capture's text buffer
#define SK_TAG_STACK_GROUP 'shgT'         // "Tghs": the stack hook's per-process groups
