; The installer package. packaging/README.md describes it. It is given:
;   VERSION  0.1.0
;   LISTS    the folder with install_files.nsh and remove_files.nsh
;   OUTPUT   the file to write
Unicode true
SetCompressor /SOLID lzma
SetDateSave on
Name "vyr ${VERSION}"
OutFile "${OUTPUT}"
InstallDir "$PROGRAMFILES\vyr"
RequestExecutionLevel admin
ShowInstDetails show
ShowUninstDetails show
VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "vyr"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "FileDescription" "vyr installer"
VIAddVersionKey "LegalCopyright" ""

!include FileFunc.nsh
!include LogicLib.nsh
!include x64.nsh
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\vyr"

Var upgrade
Var catalogue
Var failure

Page directory
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles

; A DLL that is loaded and a program that runs can be neither overwritten nor deleted, but renamed.
!macro MoveAside FILE
  ${If} ${FileExists} "${FILE}"
    Delete "${FILE}"
    ${If} ${FileExists} "${FILE}"
      GetTempFileName $R9 $INSTDIR
      Delete $R9
      Rename "${FILE}" $R9
      Delete /REBOOTOK $R9
    ${EndIf}
  ${EndIf}
!macroend

; The option for vyr_setup, with a space before it, or nothing.
!macro ReadCatalogue
  StrCpy $catalogue ""
  ${GetParameters} $R0
  ClearErrors
  ${GetOptions} $R0 "/CATALOGUE=" $R1
  ${IfNot} ${Errors}
    StrCpy $catalogue ' --catalogue "$R1"'
  ${EndIf}
  ClearErrors
!macroend

; The setup program of the machine's own kind, as it serves both. Its exit code goes to $failure, 0 if
; there is no such program in the package.
!macro RunSetup WORDS
  StrCpy $failure 0
  StrCpy $R2 "$INSTDIR\windows-x86\bin\vyr_setup.exe"
  ${If} ${RunningX64}
  ${AndIf} ${FileExists} "$INSTDIR\windows-x64\bin\vyr_setup64.exe"
    StrCpy $R2 "$INSTDIR\windows-x64\bin\vyr_setup64.exe"
  ${EndIf}
  ${If} ${FileExists} $R2
    DetailPrint '"$R2" ${WORDS}$catalogue'
    nsExec::ExecToLog '"$R2" ${WORDS}$catalogue'
    Pop $failure
    ${If} $failure == "error"
      StrCpy $failure 1
    ${EndIf}
  ${EndIf}
!macroend

; What vyr_setup notes beside itself is needed only while something of the library is in a catalogue.
!macro RemoveRecords
  Delete "$INSTDIR\windows-x86\bin\vyr_setup.journal"
  Delete "$INSTDIR\windows-x86\bin\vyr_setup.undo"
  Delete "$INSTDIR\windows-x64\bin\vyr_setup.journal"
  Delete "$INSTDIR\windows-x64\bin\vyr_setup.undo"
!macroend

!macro RemoveFiles
  !include "${LISTS}\remove_files.nsh"
!macroend

; A program that has just ended in it keeps a folder for a moment, on a busy machine for longer. A folder with
; other files in it stays.
!macro RemoveFolder
  ${For} $R9 1 10
    ClearErrors
    RMDir $INSTDIR
    ${IfNot} ${Errors}
      ${ExitFor}
    ${EndIf}
    Sleep 100
  ${Next}
!macroend

Function .onInit
  !insertmacro ReadCatalogue
  StrCpy $upgrade 0
  ReadRegStr $R3 HKLM "${UNINSTALL_KEY}" "InstallLocation"
  ${If} $R3 != ""
  ${AndIf} $INSTDIR == "$PROGRAMFILES\vyr"
    StrCpy $INSTDIR $R3
  ${EndIf}
FunctionEnd

Section
  SetShellVarContext all
  ${If} ${FileExists} "$INSTDIR\uninstall.exe"
    StrCpy $upgrade 1
    ExecWait '"$INSTDIR\uninstall.exe" /S /FILESONLY _?=$INSTDIR'
  ${EndIf}
  ClearErrors
  !include "${LISTS}\install_files.nsh"
  SetOutPath $INSTDIR
  WriteUninstaller "$INSTDIR\uninstall.exe"
  ${If} ${Errors}
    StrCpy $failure 1
    DetailPrint "Some files could not be written to $INSTDIR."
  ${Else}
    !insertmacro RunSetup "install"
  ${EndIf}
  ${If} $failure != 0
    SetErrorLevel $failure
    ${If} $upgrade == 0
    ${AndIf} $failure != 7  ; something is left in the catalogue: vyr_setup has to be run again
      SetOutPath $TEMP
      !insertmacro RemoveRecords
      !insertmacro RemoveFiles
      Delete "$INSTDIR\uninstall.exe"
      !insertmacro RemoveFolder
    ${EndIf}
    Abort "vyr could not be set up; the lines above say why."
  ${EndIf}
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "vyr"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
SectionEnd

Function un.onInit
  !insertmacro ReadCatalogue
FunctionEnd

Section un.
  ${GetParameters} $R0
  ClearErrors
  ${GetOptions} $R0 "/FILESONLY" $R1
  ${If} ${Errors}
    !insertmacro RunSetup "uninstall"
    ${If} $failure != 0
      SetErrorLevel $failure
      Abort "vyr is still in the Winsock catalogue, so its files stay; the lines above say why."
    ${EndIf}
    !insertmacro RemoveRecords
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
  ${EndIf}
  !insertmacro RemoveFiles
  Delete "$INSTDIR\uninstall.exe"
  !insertmacro RemoveFolder
SectionEnd
