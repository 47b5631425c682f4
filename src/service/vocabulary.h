#pragma once

// The vocabulary shared with client applications: notification names,
// user-info keys, event names and response codes. The values are the wire
// contract with existing clients and are compared by string equality; the
// mixed spellings ("KALResponseCodeOK" beside "kal_ResponseCode_OK_NoAudio")
// are part of that contract and stay exactly as they are.

// Posted in-process for line events and node requests addressed to clients.
inline constexpr const char kal_QLXEvent[] = "qlx_event";

// Names, keys and response codes the daemon itself posts or reads.
inline constexpr const char kal_NotificationNameKey[] = "KALNotificationName";
inline constexpr const char kal_QLXSerialNumberKey[] = "KALQLXSerialNumberKey";
inline constexpr const char kal_QLXNumberKey[] = "KALQLXNumberKey";
inline constexpr const char kal_EventTimeKey[] = "KALEventTimeKey";
inline constexpr const char kal_DigitContentsKey[] = "KALDigitContentsKey";
inline constexpr const char kal_MassDigitContentsKey[] = "KALMassDigitContentsKey";
inline constexpr const char kal_HookContentsKey[] = "KALHookContentsKey";
inline constexpr const char kal_OffHookCount[] = "KALOffHookCount";
inline constexpr const char kal_CallerIDContentsKey[] = "KALCallerIDContentsKey";
inline constexpr const char kal_FlowControlContentsKey[] = "KALFlowControlContentsKey";
inline constexpr const char kal_ResourceAvailabilityKey[] = "KALResourceAvailabilityKey";
inline constexpr const char kal_Token[] = "KALToken";
inline constexpr const char kal_ResponseCode[] = "KALResponseCode";
inline constexpr const char kal_ModemResponse[] = "KALModemResponse";
inline constexpr const char kal_Request_DialString[] = "KALRequestDialString";
inline constexpr const char kal_OriginalRequestKey[] = "KALOriginalRequestKey";
inline constexpr const char kal_SequenceNumber[] = "KALSequenceNumber";
inline constexpr const char kal_VMCheckPresentMessageDisposition[] =
    "KALVMCheckPresentMessageDisposition";
inline constexpr const char kal_VMCheck_Filter[] = "KALFilter";
inline constexpr const char kal_RequestComplete[] = "RequestComplete";
inline constexpr const char kal_RingDetect[] = "KALRingDetect";
inline constexpr const char kal_HookStatus[] = "KALHookStatus";
inline constexpr const char kal_CallerID[] = "KALCallerID";
inline constexpr const char kal_DigitDialed[] = "KALDigitDialed";
inline constexpr const char kal_BusyTone[] = "KALBusyTone";
inline constexpr const char kal_Dialtone[] = "KALDialtone";
inline constexpr const char kal_DataTone[] = "KALDataTone";
inline constexpr const char kal_IncomingFaxTone[] = "KALIncomingFaxTone";
inline constexpr const char kal_LineReversal[] = "KALLineReversal";
inline constexpr const char kal_FlowControl[] = "KALFlowControl";
inline constexpr const char kal_ResourceAvailabilityChanged[] = "KALResourceAvailabilityChanged";
inline constexpr const char kal_PleaseRunActionScriptForCaller[] =
    "KALPleaseRunActionScriptForCaller";
inline constexpr const char kal_PleaseProvideNextMessageForVMCheck[] =
    "kal_PleaseProvideNextMessageForVMCheck";
inline constexpr const char kal_PleaseRestartVMCheck[] = "KALPleaseRestartVMCheck";
inline constexpr const char kal_VMRecordingStart[] = "KALVMRecordingStart";
inline constexpr const char kal_PleaseDial[] = "KALPleaseDial";
inline constexpr const char kal_PleaseChangeDebugLevel[] = "KALPleaseChangeDebugLevel";
inline constexpr const char kal_DebugLevel[] = "KALDebugLevel";
inline constexpr const char kal_VMSilenceDetection[] = "KALVMSilenceDetection";
inline constexpr const char kal_ResponseCode_OK[] = "KALResponseCodeOK";
inline constexpr const char kal_ResponseCode_OK_NoAudio[] = "kal_ResponseCode_OK_NoAudio";
inline constexpr const char kal_ResponseCode_OK_AudioReceived[] =
    "kal_ResponseCode_OK_AudioReceived";
inline constexpr const char kal_ResponseCode_OK_FaxWait[] = "KALResponseCode_OK_FaxWait";
inline constexpr const char kal_ResponseCode_OK_FaxAbort[] = "KALResponseCode_OK_FaxAbort";
inline constexpr const char kal_ResponseCode_OK_FaxWaitEnd[] = "KALResponseCode_OK_FaxWaitEnd";
inline constexpr const char kal_ResponseCode_ERR_NoResource[] = "KALResponseCodeERRNoResource";
inline constexpr const char kal_ResponseCode_ERR_ResourceBusy[] = "KALResponseCodeERRResourceBusy";
inline constexpr const char kal_ResponseCode_ERR_UnimplementedRequest[] =
    "KALResponseCodeERRUnimplemented";
inline constexpr const char kal_ResponseCode_ERR_MalformedRequest[] =
    "KALResponseCodeERRMalformedRequest";
inline constexpr const char kal_ResponseCode_ERR_InternalError[] =
    "kal_ResponseCode_ERR_InternalError";
inline constexpr const char kal_ResponseCode_ERR_InvalidFile[] = "kal_ResponseCode_ERR_InvalidFile";
inline constexpr const char kal_VMCheck_Disposition_Delete[] = "KALDispositionDelete";
inline constexpr const char kal_VMCheck_Disposition_Save[] = "KALDispositionSave";
inline constexpr const char kal_VMCheck_Disposition_Skip[] = "KALDispositionSkip";
inline constexpr const char kal_VMCheck_Filter_CallLog[] = "KALFilterCallLog";
inline constexpr const char kal_VMCheck_Filter_Recent[] = "KALFilterRecent";
inline constexpr const char kal_VMCheck_Filter_Unheard[] = "KALFilterUnheard";
// The bus name: kVendorId followed by ".devicemaster.listener.v2".
inline constexpr const char kal_DO_Server_Name[] = "com.orvane.devicemaster.listener.v2";

// Outcomes of a placed call (RequestComplete of an outbound voicemail).
inline constexpr const char kal_ResponseCode_Call_OK[] = "KALResponseCode_Call_OK";
inline constexpr const char kal_ResponseCode_Call_Busy[] = "KALResponseCode_Call_Busy";
inline constexpr const char kal_ResponseCode_Call_NoAnswer[] = "KALResponseCode_Call_NoAnswer";
inline constexpr const char kal_ResponseCode_Call_NoDialTone[] = "KALResponseCode_Call_NoDialTone";
inline constexpr const char kal_ResponseCode_Call_Error[] = "KALResponseCode_Call_Error";

// Declared for clients, which send them to one another through
// RedistributeNotification; the daemon only forwards them.
inline constexpr const char kal_SoftwareCID[] = "KALSoftwareCID";
inline constexpr const char kal_AllowShortTones[] = "KALAllowShortTones";
inline constexpr const char kal_LongTones[] = "KALLongTones";
inline constexpr const char kal_CIDWMode[] = "KALCIDWMode";
inline constexpr const char kal_KillGainBoost[] = "KALKillGainBoost";
inline constexpr const char kal_RCResponseCode[] = "KALRCResponseCode";
inline constexpr const char kal_PleasePlaceDemoCall[] = "KALPleasePlaceDemoCall";
inline constexpr const char kal_PleasePlayback[] = "KALPleasePlayback";
inline constexpr const char kal_PleaseListLines[] = "KALPleaseListLines";
inline constexpr const char kal_PleaseRecord[] = "KALPleaseRecord";
inline constexpr const char kal_JobsChanged[] = "KALJobsChanged";
inline constexpr const char kal_DialerPreferencesChanged[] = "KALDialerPreferencesChanged";
inline constexpr const char kal_PreferencesChanged[] = "KALPreferencesChanged";
inline constexpr const char kal_DatabaseChanged[] = "KALDatabaseChanged";
inline constexpr const char kal_LineDictResponse[] = "KALLineDictResponse";
inline constexpr const char kal_LineDictRequest[] = "KALLineDictRequest";
inline constexpr const char kal_AnnouncerRunFaxScript[] = "KALAnnouncerRunFaxScript";
inline constexpr const char kal_CallRecPauseFailure[] = "KALCallRecPauseFailure";
inline constexpr const char kal_CallStartRecFailure[] = "KALCallStartRecFailure";
inline constexpr const char kal_PleasePauseCallRecording[] = "KALPleasePauseCallRecording";
inline constexpr const char kal_PleaseInitiateCallRecording[] = "KALPleaseInitiateCallRecording";
inline constexpr const char kal_PleaseInitiateVoiceMail[] = "KALPleaseInitiateVoiceMail";
inline constexpr const char kal_RemoteControlStarting[] = "KALRemoteControlStarting";
inline constexpr const char kal_VoiceMailStarting[] = "KALVoiceMailStarting";
inline constexpr const char kal_RecordingHasStopped[] = "KALRecordingHasStopped";
inline constexpr const char kal_RecordingHasStarted[] = "KALRecordingHasStarted";
inline constexpr const char kal_PleaseShowCallRecPanel[] = "KALPleaseShowCallRecPanel";
inline constexpr const char kal_RCTestReply[] = "KALRCTestReply";
inline constexpr const char kal_AnnouncerRunActionScriptForCaller[] =
    "KALAnnouncerRunActionScriptForCaller";
inline constexpr const char kal_PleaseRunVMScripts[] = "KALPleaseRunVMScripts";
inline constexpr const char kal_PleaseRunRecordingScripts[] = "KALPleaseRunRecordingScripts";
inline constexpr const char kal_LoggerEndedCall[] = "KALLoggerEndedCall";
inline constexpr const char kal_PlaybackAborted[] = "KALPlaybackAborted";
inline constexpr const char kal_ReplyToRequest[] = "KALReplyToRequest";
inline constexpr const char kal_AddedCallsToJob[] = "KALAddedCallsToJob";
inline constexpr const char kal_NotificationToPropagate[] = "KALNotificationToPropagate";
inline constexpr const char kal_PleasePropagateNotification[] = "KAL_PROPAGATE";
inline constexpr const char kal_Dialer_NameToPrint[] = "KALDialerNameToPrint";
inline constexpr const char kal_Dialer_CallingCardRowID[] = "KALDialerCallingCardRowID";
inline constexpr const char kal_Dialer_PhonebookRowID[] = "KALDialerPhonebookRowID";
inline constexpr const char kal_Dialer_CallLogRowID[] = "KALDialerCallLogRowID";
inline constexpr const char kal_OrganizeDialing[] = "KALOrganizeDialing";
inline constexpr const char kal_Logger_Phonebook_ID[] = "KALLoggerPhonebookID";
inline constexpr const char kal_Logger_UpcomingDial[] = "KALLoggerUpcomingDial";
inline constexpr const char kal_Request_ResourceSerialNumber[] = "KALRequest_ResourceSN";
inline constexpr const char kal_LineList[] = "KALLineList";
inline constexpr const char kal_RequestDictionary[] = "KALRequestDictionary";
inline constexpr const char kal_RemoteWardenAnnouncement[] = "KALRemoteWardenAnnouncement";
inline constexpr const char kal_Preferences_Zone[] = "KALPreferencesZone";
inline constexpr const char kal_Preferences_Username[] = "KALPreferencesUsername";
inline constexpr const char kal_CallLogATimeOnly[] = "KALCallLogATimeOnly";
inline constexpr const char kal_CRFailureResponseText[] = "KALCRFailureResponseText";
inline constexpr const char kal_CRFailureResponseName[] = "KALCRFailureResponseName";
inline constexpr const char kal_MailboxRowID[] = "KALMailboxRowID";
inline constexpr const char kal_ScriptTestResultText[] = "KALScriptTestResultText";
inline constexpr const char kal_ScriptTestResultType[] = "KALScriptTestResultType";
inline constexpr const char kal_ScriptTestResultPath[] = "KALScriptTestResultPath";
inline constexpr const char kal_TestScript[] = "KALTestScript";
inline constexpr const char kal_TestModeVoice[] = "KALTestModeVoice";
inline constexpr const char kal_TestMode[] = "KALTestMode";
inline constexpr const char kal_DB_ChangeType[] = "KALDBChangeType";
inline constexpr const char kal_DB_ForeignKeys[] = "KALDBForeignKeys";
inline constexpr const char kal_DB_DeletedRowIDs[] = "KALDBDeletedRowIDs";
inline constexpr const char kal_DB_UpdatedRowIDs[] = "KALDBUpdatedRowIDs";
inline constexpr const char kal_DB_InsertedRowIDs[] = "KALDBInsertedRowIDs";
inline constexpr const char kal_DB_ObjectClass[] = "KALDBObjectClass";
inline constexpr const char kal_RecordingTokens[] = "KALRecordingTokens";
inline constexpr const char kal_LineDict[] = "KALLineDict";
inline constexpr const char kal_AudioPath[] = "KALAudioPath";
inline constexpr const char kal_ACRDirectionKey[] = "KALACRDirectionKey";
inline constexpr const char kal_JobRowID[] = "KALJobRowID";
inline constexpr const char kal_LogRowID[] = "KALLogRowID";
inline constexpr const char kal_CallIDKey[] = "KALCallIDKey";
