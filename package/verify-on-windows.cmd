@echo off
rem What only a real Windows can tell of the shared service host, tried step by step with the programs of this
rem package. Run it as an administrator from an unpacked ZIP, on a machine where no hosted services run or may be
rem stopped meanwhile. It prints pass, fail or "cannot be told here" for each step, with the reason, and takes away
rem all that it has made. Exit code: 0 unless a step fails.
setlocal enableextensions enabledelayedexpansion
set group=TxVerify
set one=TxVerifyOne
set two=TxVerifyTwo
set local=TxVerifyLocal
set class={0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E01}
set provider={3B5C1D0E-7A42-4F86-9D21-6C8815E04B7F}
set session=TxVerifyTrace
set passed=0
set failed=0
set untold=0

rem Service accounts cannot read below a user's folder, where the ZIP may be.
set work=%ProgramData%\TxVerify
set tool="%work%\bin\txsvcctl.exe"
set out="%work%\out.txt"
if exist "%work%" rmdir /s /q "%work%"
if exist "%work%" goto :no_admin
mkdir "%work%" 2>nul
rem Users may make files below ProgramData: not here.
icacls "%work%" /inheritance:r /grant *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-19:(OI)(CI)RX >nul 2>&1
mkdir "%work%\bin" 2>nul
if not exist "%work%\bin" goto :no_admin
for %%f in (TxSvHost.exe TxSvHostPS.dll txsvcctl.exe) do copy /y "%~dp0..\bin\%%f" "%work%\bin\%%f" >nul
for %%f in (MinimalSubsystem.dll Updater.exe) do copy /y "%~dp0%%f" "%work%\%%f" >nul
for %%f in (bin\TxSvHost.exe bin\TxSvHostPS.dll bin\txsvcctl.exe MinimalSubsystem.dll Updater.exe) do if not exist "%work%\%%f" goto :no_files

rem Wine has no shared processes, no traces, no accounts: what fails there tells nothing.
set wine=
reg query "HKCU\Software\Wine" >nul 2>&1
if not errorlevel 1 set wine=1
set was_there=
reg query "HKLM\SOFTWARE\Wow6432Node\Tarvex" >nul 2>&1
if not errorlevel 1 set was_there=1
set others=
%tool% status >%out% 2>nul
find "running, process" %out% >nul 2>&1
if not errorlevel 1 set others=1

echo The package's programs
call :step "the tool runs"
%tool% --version >%out% 2>&1
call :told %errorlevel%

echo.
echo Registration
call :step "a group of two services is registered"
%tool% install %group% %one% --clsid %class% --module "%work%\MinimalSubsystem.dll" --description "Verifies the host" --depends RpcSs --start delayed --sid unrestricted --preshutdown 20 --recovery >%out% 2>&1
if not errorlevel 1 %tool% install %group% %two% --clsid %class% --module "%work%\MinimalSubsystem.dll" --depends RpcSs --sid unrestricted --recovery >>%out% 2>&1
call :told %errorlevel%
sc qc %one% >%out% 2>&1
call :has "sc qc shows a share process and the quoted path" "WIN32_SHARE_PROCESS"
sc qc %one% >%out% 2>&1
call :has "sc qc shows the dependency" "RpcSs"
sc qc %one% >%out% 2>&1
call :has "sc qc shows the delayed start" "DELAYED"
sc qdescription %one% >%out% 2>&1
call :has "sc qdescription shows the description" "Verifies the host"
sc qfailure %one% >%out% 2>&1
call :has "sc qfailure shows the restarts" "RESTART"
sc qfailureflag %one% >%out% 2>&1
call :has "sc qfailureflag shows that errors count as failures" "TRUE"
sc qsidtype %one% >%out% 2>&1
call :has "sc qsidtype shows the SID" "UNRESTRICTED"
sc qpreshutdown %one% >%out% 2>&1
call :has "sc qpreshutdown shows the limit" "20000"
call :step "check finds nothing wrong with the group"
%tool% check %group% >%out% 2>&1
call :told %errorlevel%

echo.
echo One process
call :step "both services start"
%tool% start --group %group% >%out% 2>&1
call :told %errorlevel%
call :pid %one%
set first=%pid%
call :pid %two%
call :step "the service manager runs both in one process"
echo %one% in process %first%, %two% in process %pid% >%out%
set code=1
if defined pid if "%first%"=="%pid%" set code=0
call :told %code%
call :step "a trim gives memory back"
call :memory
set before=%memory%
%tool% trim %group% >nul 2>&1
rem The host waits until its process is idle.
call :pause 20
call :memory
echo %before% bytes before, %memory% after >%out%
set code=1
if defined before if defined memory if %memory% LSS %before% set code=0
call :told %code%

echo.
echo Trace and event log
call :step "a trace session records"
logman create trace %session% -p %provider% 0x0 5 -o "%work%\trace.etl" -ets >%out% 2>&1
set code=%errorlevel%
if %code%==0 %tool% restart %two% >nul 2>&1
if %code%==0 logman stop %session% -ets >>%out% 2>&1
if not exist "%work%\trace*.etl" set code=1
call :told %code%
set trace=
for %%f in ("%work%\trace*.etl") do set trace=%%f
%tool% log trace "%trace%" >%out% 2>&1
call :has "the tool decodes it" "GenericServiceMain"
mofcomp "%~dp0..\kit\TxSvHostEvents.mof" >%out% 2>&1
tracerpt "%trace%" -o "%work%\trace.csv" -of CSV -y >>%out% 2>&1
if exist "%work%\trace.csv" type "%work%\trace.csv" >%out%
call :has "tracerpt decodes it by the MOF file" "GenericServiceMain"
wevtutil qe Application /c:50 /rd:true /f:text >%out% 2>&1
call :has "the event log has the group's start, with its text" "%group%"

echo.
echo Recovery
call :step "a host that is killed is started again"
if defined wine (
    call :untold "Wine's service manager does not notice it"
    goto :accounts
)
call :pid %one%
set first=%pid%
taskkill /f /pid %first% >%out% 2>&1
call :pause 12
call :pid %one%
echo process %first% was killed, %pid% runs >>%out%
set code=1
if defined first if defined pid if not "%pid%"=="%first%" set code=0
call :told %code%

:accounts
echo.
echo Accounts
call :step "a group with the account LocalService starts"
%tool% install %local% %local% --clsid %class% --module "%work%\MinimalSubsystem.dll" --account "NT AUTHORITY\LocalService" >%out% 2>&1
if not errorlevel 1 %tool% start %local% >>%out% 2>&1
call :told %errorlevel%
sc qc %local% >%out% 2>&1
call :has "sc qc shows the account" "LocalService"
sc showsid %one% >%out% 2>&1
call :has "sc showsid knows the service's SID" "S-1-5-80-"

echo.
echo An updater in another session than the hosts
call :step "it reaches the hosts and ends them"
set why=
if defined others set why=other hosted services run here, which it would stop
reg query "HKLM\SOFTWARE\Classes\AppID\{050813AE-50A9-44C9-8498-14DE61E60D23}" >nul 2>&1
if errorlevel 1 set why=the product is not installed, so its classes are not registered
if defined why (
    call :untold "%why%"
) else (
    "%work%\Updater.exe" stop >%out% 2>&1
    call :told !errorlevel!
)
%tool% stop --group %group% >%out% 2>&1
call :has "a stop through the service manager works all the same" "%one%: stopped"

echo.
echo Taking all away
%tool% stop %local% >nul 2>&1
%tool% stop %one% %two% >nul 2>&1
logman stop %session% -ets >nul 2>&1
call :step "services, settings and files are gone"
%tool% remove %group% %two% >%out% 2>&1
%tool% remove %group% %one% >>%out% 2>&1
%tool% remove %local% %local% >>%out% 2>&1
>"%work%\remove.mof" echo #pragma namespace("\\\\.\\root\\wmi")
for %%c in (TxSvHostMessage_Type TxSvHostMessage TxSvHostLog) do >>"%work%\remove.mof" echo #pragma deleteclass("%%c", NOFAIL)
mofcomp "%work%\remove.mof" >nul 2>&1
if not defined was_there %tool% setup remove --purge >>%out% 2>&1
set code=0
for %%k in (SYSTEM\CurrentControlSet\Services\%one% SOFTWARE\Wow6432Node\Tarvex\Platform\TxSvcHost\%group%) do (
    reg query "HKLM\%%k" >nul 2>&1
    if not errorlevel 1 set code=1
)
rem The process may take a moment to end, and to let its files go.
if %code%==0 call :pause 3
if %code%==0 rmdir /s /q "%work%" >nul 2>&1
if %code%==0 if exist "%work%" set code=1
call :told %code%

echo.
echo %passed% passed, %failed% failed, %untold% cannot be told here.
if %failed%==0 exit /b 0
exit /b 1

rem --- "call :step NAME", then the step, then "call :told CODE", with what it printed in %out% ---
:step
set name=%~1
goto :eof

:told
set code=%1
if "%code%"=="0" (
    set /a passed+=1
    echo   pass                 %name%
    goto :eof
)
if defined wine (
    set /a untold+=1
    echo   cannot be told here  %name%
) else (
    set /a failed+=1
    echo   fail                 %name%
)
if exist %out% for /f "usebackq delims=" %%l in (%out%) do echo       %%l
goto :eof

:untold
set /a untold+=1
echo   cannot be told here  %name%: %~1
goto :eof

rem "call :has NAME TEXT": the text is in %out%.
:has
set name=%~1
find "%~2" %out% >nul 2>&1
call :told %errorlevel%
goto :eof

rem The process of a service in %pid%, empty when there is none.
:pid
set pid=
%tool% status %1 >"%work%\status.txt" 2>nul
for /f "usebackq tokens=1-4 delims=, " %%a in ("%work%\status.txt") do if "%%a %%b"=="%1: running" set pid=%%d
goto :eof

rem The working set of the group's process in %memory%.
:memory
set memory=
%tool% status %group% --json >"%work%\status.txt" 2>nul
for /f "usebackq tokens=1,2 delims=:, " %%a in ("%work%\status.txt") do if %%a=="workingSetBytes" set memory=%%b
goto :eof

:pause
set seconds=%1
if defined wine set seconds=2
ping -n %seconds% 127.0.0.1 >nul
goto :eof

:no_admin
echo "%work%" cannot be made: run this as an administrator.
exit /b 2

:no_files
echo A program is missing: run this from an unpacked package.
rmdir /s /q "%work%" >nul 2>&1
exit /b 2
