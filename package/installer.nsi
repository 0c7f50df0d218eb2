; The installer: unpacks, and has "txsvcctl setup" do the rest, which does the same for the ZIP.
;   makensis -DVERSION=N.N.N.N -DPACKAGE=FOLDER -DOUT=FILE installer.nsi
; FOLDER holds the components: runtime, kit. /S is silent, /D=FOLDER the place, as with every installer of this kind.
; Exit codes are those of Windows' own installer: 0, 1602 cancelled, 1603 failed and all as before, 3010 done, but old
; files go at the system's next start.
Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
SetDateSave off
RequestExecutionLevel admin
ManifestSupportedOS Win10
ManifestDPIAware true

!include FileFunc.nsh
!include LogicLib.nsh
!include Sections.nsh
!include WinVer.nsh

!define NAME "Tarvex Shared Service Host"
!define ENTRY "Software\Microsoft\Windows\CurrentVersion\Uninstall\TxSvHost"
!define CANCELLED 1602
!define FAILED 1603
!define RESTART 3010

Name "${NAME}"
OutFile "${OUT}"
InstallDir "$PROGRAMFILES64\Tarvex\Shared Service Host"
BrandingText "${NAME} ${VERSION}"
ShowInstDetails show
ShowUninstDetails show

VIProductVersion "${VERSION}"
VIAddVersionKey CompanyName "Tarvex, Inc."
VIAddVersionKey FileDescription "${NAME} Setup"
VIAddVersionKey LegalCopyright "Tarvex, Inc."
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey ProductName "${NAME}"
VIAddVersionKey ProductVersion "${VERSION}"

Page components
Page directory
Page instfiles
UninstPage components
UninstPage instfiles

; Runs the tool with ARGUMENTS; $0 is its exit code. What it says is shown; of a silent failure it is left in a file.
!macro Setup TOOL ARGUMENTS
    nsExec::ExecToStack '"${TOOL}" setup ${ARGUMENTS}'
    Pop $0
    Pop $1
    DetailPrint "$1"
    ${If} $0 == ${RESTART}
        SetErrorLevel ${RESTART}
    ${ElseIf} $0 != 0
        FileOpen $2 "$TEMP\TxSvHost-setup.log" w
        FileWriteUTF16LE /BOM $2 "$1"
        FileClose $2
        SetErrorLevel ${FAILED}
    ${EndIf}
!macroend

Function .onInit
    ${IfNot} ${AtLeastWin10}
        MessageBox MB_ICONSTOP "Windows 10 or later is needed." /SD IDOK
        SetErrorLevel ${FAILED}
        Quit
    ${EndIf}
    ; An update goes where the product is, unless /D says otherwise.
    ReadRegStr $0 HKLM "${ENTRY}" InstallLocation
    ${If} $0 != ""
    ${AndIf} $INSTDIR == "$PROGRAMFILES64\Tarvex\Shared Service Host"
        StrCpy $INSTDIR $0
    ${EndIf}
    InitPluginsDir ; Made such that only administrators may change it.
FunctionEnd

Function .onUserAbort
    SetErrorLevel ${CANCELLED}
FunctionEnd

Section "Host, tools and documents"
    SectionIn RO
    SetOutPath "$PLUGINSDIR\package"
    File /r "${PACKAGE}/runtime/*"
    WriteUninstaller "$PLUGINSDIR\package\uninstall.exe"
SectionEnd

Section "Kit for authors of services"
    SetOutPath "$PLUGINSDIR\package"
    File /r "${PACKAGE}/kit/*"
SectionEnd

Section -install
    SetOutPath "$TEMP" ; The unpacked files are deleted at the end: nobody may be in their folder.
    !insertmacro Setup "$PLUGINSDIR\package\bin\txsvcctl.exe" 'install --to "$INSTDIR"'
    ${If} $0 != 0
    ${AndIf} $0 != ${RESTART}
        MessageBox MB_ICONSTOP "$1" /SD IDOK
        Abort
    ${EndIf}
    WriteRegStr HKLM "${ENTRY}" DisplayName "${NAME}"
    WriteRegStr HKLM "${ENTRY}" DisplayVersion "${VERSION}"
    WriteRegStr HKLM "${ENTRY}" Publisher "Tarvex, Inc."
    WriteRegStr HKLM "${ENTRY}" InstallLocation "$INSTDIR"
    WriteRegStr HKLM "${ENTRY}" DisplayIcon "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${ENTRY}" UninstallString '"$INSTDIR\uninstall.exe"'
    ; An uninstaller goes on in a copy of itself and cannot be waited for. "_?=" keeps it from that, but then nobody can
    ; delete its file: so a copy is made first.
    WriteRegStr HKLM "${ENTRY}" QuietUninstallString \
        'cmd.exe /c copy /y "$INSTDIR\uninstall.exe" "%TEMP%\TxSvHost-uninstall.exe" >nul && "%TEMP%\TxSvHost-uninstall.exe" /S _?=$INSTDIR'
    WriteRegDWORD HKLM "${ENTRY}" NoModify 1
    WriteRegDWORD HKLM "${ENTRY}" NoRepair 1
    ${GetSize} "$INSTDIR" "/S=0K" $3 $4 $5
    WriteRegDWORD HKLM "${ENTRY}" EstimatedSize $3
SectionEnd

Section "un.Product"
    SectionIn RO
SectionEnd

Section /o "un.Groups, settings and logs too" Purge
SectionEnd

Section -un.remove
    SetOutPath "$TEMP"
    CopyFiles /SILENT "$INSTDIR\bin\txsvcctl.exe" "$PLUGINSDIR\txsvcctl.exe"
    StrCpy $3 ""
    ${If} ${SectionIsSelected} ${Purge}
        StrCpy $3 "--purge"
    ${EndIf}
    !insertmacro Setup "$PLUGINSDIR\txsvcctl.exe" 'remove --from "$INSTDIR" $3'
    ${If} $0 != 0
    ${AndIf} $0 != ${RESTART}
        MessageBox MB_ICONSTOP "$1" /SD IDOK
        Abort
    ${EndIf}
    DeleteRegKey HKLM "${ENTRY}"
SectionEnd

Function un.onInit
    InitPluginsDir
    ${GetParameters} $0
    ClearErrors
    ${GetOptions} $0 "/PURGE" $1
    ${IfNot} ${Errors}
        !insertmacro SelectSection ${Purge}
    ${EndIf}
FunctionEnd

Function un.onUserAbort
    SetErrorLevel ${CANCELLED}
FunctionEnd
