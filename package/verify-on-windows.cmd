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
set class={0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E02}
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
mkdir "%work%\bin" || goto :no_admin
for %%f in (TxSvHost.exe TxSvHostPS.dll txsvcctl.exe) do copy /y "%~dp0..\bin\%%f" "%work%\bin\%%f" >nul || goto :no_files
for %%f in (EchoSubsystem.dll Updater.exe) do copy /y "%~dp0%%f" "%work%\%%f" >nul || goto :no_files

rem Wine has no shared processes, no traces, no accounts: what fails there tells nothing.
set wine=
reg query "HKCU\Software\Wine" >nul 2>&1 && set wine=1
set was_there=
reg query "HKLM\SOFTWARE\Wow6432Node\Tarvex" >nul 2>&1 && set was_there=1
set others=
%tool% status >%out% 2>nul
find "running, process" %out% >nul && set others=1

echo The package's programs
call :step "the tool runs"
%tool% --version >%out% 2>&1
call :told %errorlevel%

echo.
echo Registration
call :step "a group of two services is registered"
%tool% install %group% %one% --clsid %class% --module "%work%\EchoSubsystem.dll" --description "Verifies the host" --depends RpcSs --start delayed --sid unrestricted --preshutdown 20 --recovery >%out% 2>&1
if not errorlevel 1 %tool% install %group% %two% --clsid %class% --module "%work%\EchoSubsystem.dll" --depends RpcSs --sid unrestricted --recovery >>%out% 2>&1
call :told %errorlevel%
call :look "sc qc shows a share process and the quoted path" "sc qc %one%" "WIN32_SHARE_PROCESS"
call :look "sc qc shows the dependency" "sc qc %one%" "RpcSs"
call :look "sc qc shows the delayed start" "sc qc %one%" "DELAYED"
call :look "sc qdescription shows the description" "sc qdescription %one%" "Verifies the host"
call :look "sc qfailure shows the restarts" "sc qfailure %one%" "RESTART"
call :look "sc qfailureflag shows that errors count as failures" "sc qfailureflag %one%" "TRUE"
call :look "sc qsidtype shows the SID" "sc qsidtype %one%" "UNRESTRICTED"
call :look "sc qpreshutdown shows the limit" "sc qpreshutdown %one%" "20000"
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
if "%first%"=="%pid%" (call :told 0) else (call :told 1)
call :step "a trim gives memory back"
call :memory
set before=%memory%
%tool% trim %group% >nul 2>&1
rem The host waits until its process is idle.
call :pause 20
call :memory
echo %before% bytes before, %memory% after >%out%
if "%memory%"=="" (call :told 1) else if %memory% LSS %before% (call :told 0) else (call :told 1)

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
call :look "the tool decodes it" "%tool% log trace "%trace%"" "GenericServiceMain"
call :step "tracerpt decodes it by the MOF file"
mofcomp "%~dp0..\kit\TxSvHostEvents.mof" >%out% 2>&1
tracerpt "%trace%" -o "%work%\trace.csv" -of CSV -y >>%out% 2>&1
findstr /c:"GenericServiceMain" "%work%\trace.csv" >nul 2>&1
call :told %errorlevel%
call :look "the event log has the group's start, with its text" "wevtutil qe Application /c:50 /rd:true /f:text" "%group%"

echo.
echo Recovery
call :step "a host that is killed is started again"
call :pid %one%
set first=%pid%
taskkill /f /pid %first% >%out% 2>&1
call :pause 12
call :pid %one%
echo process %first% was killed, %pid% runs >>%out%
set code=1
if not "%pid%"=="" if not "%pid%"=="0" if not "%pid%"=="%first%" set code=0
if "%first%"=="" set code=1
call :told %code%

echo.
echo Accounts
call :step "a group runs as LocalService"
%tool% install %local% %local% --clsid %class% --module "%work%\EchoSubsystem.dll" --account "NT AUTHORITY\LocalService" >%out% 2>&1
if not errorlevel 1 %tool% start %local% >>%out% 2>&1
call :told %errorlevel%
call :look "sc qc shows the account" "sc qc %local%" "LocalService"
call :look "sc showsid knows the service's SID" "sc showsid %one%" "S-1-5-80-"

echo.
echo An updater in another session than the hosts
call :step "it reaches the hosts and ends them"
set why=
if defined others set why=other hosted services run here, which it would stop
reg query "HKLM\SOFTWARE\Classes\AppID\{050813AE-50A9-44C9-8498-14DE61E60D23}" >nul 2>&1 || set why=the product is not installed, so its classes are not registered
if defined why (
    call :untold "%why%"
) else (
    "%work%\Updater.exe" stop >%out% 2>&1
    call :told !errorlevel!
)
call :look "a stop through the service manager works all the same" "%tool% stop --group %group%" "stopped"

echo.
echo Taking all away
%tool% stop %local% >nul 2>&1
%tool% stop %one% %two% >nul 2>&1
logman stop %session% -ets >nul 2>&1
call :step "services, settings and files are gone"
%tool% remove %group% %two% >%out% 2>&1
%tool% remove %group% %one% >>%out% 2>&1
%tool% remove %local% %local% >>%out% 2>&1
(
    echo #pragma namespace("\\\\.\\root\\wmi"^)
    echo #pragma deleteclass("TxSvHostMessage_Type", NOFAIL^)
    echo #pragma deleteclass("TxSvHostMessage", NOFAIL^)
    echo #pragma deleteclass("TxSvHostLog", NOFAIL^)
) >"%work%\remove.mof"
mofcomp "%work%\remove.mof" >nul 2>&1
if not defined was_there %tool% setup remove --purge >>%out% 2>&1
sc query %one% >nul 2>&1
set code=1
if errorlevel 1 set code=0
reg query "HKLM\SOFTWARE\Wow6432Node\Tarvex\Platform\TxSvcHost\%group%" >nul 2>&1 && set code=1
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
    goto :eof
)
set /a failed+=1
echo   fail                 %name%
if exist %out% for /f "usebackq delims=" %%l in (%out%) do echo       %%l
goto :eof

:untold
set /a untold+=1
echo   cannot be told here  %name%: %~1
goto :eof

rem "call :look NAME COMMAND TEXT": the command prints the text.
:look
set name=%~1
set command=%~2
set text=%~3
%command% >%out% 2>&1
findstr /i /c:"%text%" %out% >nul 2>&1
call :told %errorlevel%
goto :eof

rem The process of a service in %pid%, 0 or empty when there is none.
:pid
set pid=
for /f "tokens=4" %%p in ('%tool% status %1 ^| findstr /c:"%1: running"') do set pid=%%p
goto :eof

rem The working set of the group's process in %memory%.
:memory
set memory=
for /f "tokens=2 delims=:, " %%m in ('%tool% status %group% --json ^| findstr workingSet') do set memory=%%m
goto :eof

:pause
if defined wine set /a waited=1
if defined wine goto :eof
ping -n %1 127.0.0.1 >nul
goto :eof

:no_admin
echo "%work%" cannot be made: run this as an administrator.
exit /b 2

:no_files
echo A program is missing: run this from an unpacked package.
rmdir /s /q "%work%" >nul 2>&1
exit /b 2
