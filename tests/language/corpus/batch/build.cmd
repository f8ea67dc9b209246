@echo off
setlocal enabledelayedexpansion
rem Build every project in the folder.
set COUNT=0
for %%f in (*.sln) do (
    echo Building %%f
    msbuild "%%f" /p:Configuration=Release
    if errorlevel 1 goto failed
    set /a COUNT+=1
)
echo Built !COUNT! solutions.
goto :eof
:failed
echo Build failed.
exit /b 1
