# run-tests.ps1 [-Only PATTERN] [-Seconds N]: runs the programs that tests.txt names (one a line: the program without
# ".exe", then its arguments) from the folder bin beside this script, and prints one table. The output of every program
# stays in the folder logs; that of one that failed is printed too. Ends with 1 when one failed, else with 0.
# Needs Windows 10 or later with its own PowerShell 5, and nothing else.
param(
    [string]$Only = '*',
    [int]$Seconds = 300
)
$ErrorActionPreference = 'Stop'
$kit = Split-Path -Parent $MyInvocation.MyCommand.Path
$bin = Join-Path $kit 'bin'
$logs = Join-Path $kit 'logs'
New-Item -ItemType Directory -Force -Path $logs | Out-Null

# Runs one line of the list and returns its row of the table.
function Invoke-TestProgram([string]$Line) {
    $name, $arguments = $Line -split ' ', 2
    $log = Join-Path $logs "$name.txt"
    $start = @{
        FilePath               = Join-Path $bin "$name.exe"
        WorkingDirectory       = $bin
        RedirectStandardOutput = $log
        RedirectStandardError  = "$log.err"
        NoNewWindow            = $true
        PassThru               = $true
    }
    if ($arguments) { $start.ArgumentList = $arguments }
    $clock = [Diagnostics.Stopwatch]::StartNew()
    $process = Start-Process @start
    $handle = $process.Handle  # without it the exit code is not kept
    if ($process.WaitForExit($Seconds * 1000)) {
        $outcome = if ($process.ExitCode -eq 0) { 'ok' } else { 'FAILED' }
        $code = '0x{0:X}' -f $process.ExitCode
    } else {
        $outcome = 'FAILED'
        $code = "no end in $Seconds s"
        & taskkill.exe /T /F /PID $process.Id | Out-Null
        $process.WaitForExit()
    }
    if (Test-Path "$log.err") {
        Get-Content "$log.err" | Add-Content $log
        Remove-Item "$log.err"
    }
    [pscustomobject]@{
        Program = $name
        Outcome = $outcome
        Code    = $code
        Seconds = [math]::Round($clock.Elapsed.TotalSeconds, 1)
        Skipped = @(Select-String -Path $log -Pattern '^\[  SKIPPED \] .*ms\)').Count
    }
}

$lines = @(Get-Content (Join-Path $kit 'tests.txt') | Where-Object { $_ -and $_ -notlike '#*' -and $_ -like $Only })
Write-Host "$([Environment]::OSVersion.VersionString), $env:PROCESSOR_ARCHITECTURE, $($lines.Count) programs"
$rows = @()
foreach ($line in $lines) {
    $row = Invoke-TestProgram $line
    $rows += $row
    Write-Host ('{0,-32} {1,-7} {2,6} s' -f $row.Program, $row.Outcome, $row.Seconds)
    if ($row.Outcome -ne 'ok') {
        Write-Host "---- output of $($row.Program) ($($row.Code)) ----"
        Get-Content (Join-Path $logs "$($row.Program).txt") -Tail 200 | Write-Host
        Write-Host '----'
    }
}
$rows | Format-Table -AutoSize | Out-String -Width 100 | Write-Host
$failed = @($rows | Where-Object { $_.Outcome -ne 'ok' }).Count
Write-Host "$($rows.Count - $failed) passed, $failed failed"
if ($failed -gt 0 -or $rows.Count -eq 0) { exit 1 }
exit 0
