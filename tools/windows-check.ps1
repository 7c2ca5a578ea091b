# Tries on Windows what cannot be tried elsewhere (docs/windows-checklist.md), and prints one table to send back.
#
#   powershell -ExecutionPolicy Bypass -File windows-check.ps1 [-Folder FOLDER] [-Server HOST] [-Port PORT]
#
# FOLDER has vyr_setup.exe; by default that is the script's own, or the one in a release. vyr_setup64.exe and both
# libraries lie beside it, or where a release has them. HOST is any server that accepts TCP over IPv4. Use a machine
# that may break: this changes its network configuration, and puts it back.
param(
  [string]$Folder = '',
  [string]$Server = 'example.com',
  [int]$Port = 80
)
if (-not $Folder) {
  $Folder = $PSScriptRoot
  if (-not (Test-Path (Join-Path $Folder 'vyr_setup.exe'))) { $Folder = Join-Path $PSScriptRoot '..\windows-x86\bin' }
}
$setup = Join-Path $Folder 'vyr_setup.exe'
if (-not (Test-Path $setup)) { throw "no $setup; -Folder says where it is" }
if ([Environment]::Is64BitOperatingSystem -and -not [Environment]::Is64BitProcess) {
  throw 'this is a 32-bit PowerShell, for which Windows shows other folders; start the 64-bit one'
}
$kinds = @(32)
if ([Environment]::Is64BitOperatingSystem) { $kinds = @(32, 64) }
$PSNativeCommandUseErrorActionPreference = $false  # the exit codes are compared here
$rows = New-Object System.Collections.ArrayList

function Add-Row($number, $what, $ok, $detail) {
  $result = if ($ok) { 'ok' } else { 'FAILED' }
  [void]$rows.Add([pscustomobject]@{ '#' = $number; What = $what; Result = $result; Detail = "$detail".Trim() })
  Write-Host "$number $what`: $result"
}

function Invoke-Setup {
  $text = & $setup @args 2>&1 | Out-String
  [pscustomobject]@{ Code = $LASTEXITCODE; Text = $text }
}

function Get-Shell($bits) {
  $system = if ($bits -eq 32 -and $kinds.Count -eq 2) { 'SysWOW64' } else { 'System32' }
  Join-Path $env:SystemRoot "$system\WindowsPowerShell\v1.0\powershell.exe"
}

# Connects from a new process of that kind. Gives what it says: whether it connected, and its vyr modules.
function Test-Program($bits) {
  $code = @"
`$ok = `$false
try {
  `$c = New-Object Net.Sockets.TcpClient([Net.Sockets.AddressFamily]::InterNetwork)
  `$c.Connect('$Server', $Port)
  `$ok = `$c.Connected
  `$c.Close()
} catch { `$_.Exception.Message }
`$modules = (Get-Process -Id `$PID).Modules | Where-Object { `$_.ModuleName -like 'vyr_lsp*' } | ForEach-Object { `$_.ModuleName }
"connected=`$ok modules=`$modules"
"@
  $encoded = [Convert]::ToBase64String([Text.Encoding]::Unicode.GetBytes($code))
  (& (Get-Shell $bits) -NoProfile -EncodedCommand $encoded 2>$null | Out-String).Trim()
}

function Test-Network($number, $what, $loaded) {
  foreach ($bits in $kinds) {
    $said = Test-Program $bits
    $dll = if ($bits -eq 64) { 'vyr_lsp64.dll' } else { 'vyr_lsp.dll' }
    $ok = $said -match 'connected=True'
    if ($null -ne $loaded) { $ok = $ok -and (($said -match [regex]::Escape($dll)) -eq $loaded) }
    Add-Row $number "$what, $bits-bit" $ok $said
  }
}

# The catalogues' entries in their order, without their numbers, which change when entries are put back.
function Get-Catalogue($file) {
  [void](Invoke-Setup copy --catalogue $file)
  $catalogues = (Get-Content $file -Raw -Encoding UTF8 | ConvertFrom-Json).catalogues
  $lines = foreach ($bits in $kinds) {
    foreach ($entry in $catalogues."$bits".entries) {
      "$bits $($entry.provider) $($entry.name), chain of $($entry.chain_length)"
    }
  }
  $lines -join "`n"
}

function Test-Kills {
  foreach ($milliseconds in 5, 15, 30, 60, 120, 250) {
    $process = Start-Process $setup -ArgumentList 'install' -PassThru -WindowStyle Hidden
    Start-Sleep -Milliseconds $milliseconds
    Stop-Process -Id $process.Id -Force -ErrorAction SilentlyContinue
    $process.WaitForExit()
    Test-Network 9 "killed after $milliseconds ms" $null
    [void](Invoke-Setup repair)
    $status = Invoke-Setup status
    Add-Row 9 "then repair" (@(0, 10) -contains $status.Code) "status $($status.Code)"
    [void](Invoke-Setup uninstall)
  }
}

# What another installer might do: the layered UDP entry goes, from the catalogue of this PowerShell's kind.
function Remove-OneEntry {
  Add-Type -Namespace Vyr -Name Calls -MemberDefinition @'
[System.Runtime.InteropServices.DllImport("ws2_32.dll")]
public static extern int WSCDeinstallProvider(ref System.Guid provider, out int error);
'@
  $guid = [Guid]'6A0B59C1-2D3F-4E87-B14C-905D27E83102'
  $error_number = 0
  [Vyr.Calls]::WSCDeinstallProvider([ref]$guid, [ref]$error_number)
}

$elevated = ([Security.Principal.WindowsPrincipal][Security.Principal.WindowsIdentity]::GetCurrent()).IsInRole(
  [Security.Principal.WindowsBuiltInRole]::Administrator)
if (-not $elevated) {
  $refused = Invoke-Setup install
  Add-Row 2 'install without rights is refused' ($refused.Code -eq 5) $refused.Text
  $rows | Format-Table -AutoSize -Wrap
  Write-Host 'Now run it again from an elevated PowerShell.'
  exit 5
}

$before = Get-Catalogue (Join-Path $Folder 'before.json')
$copied = @($kinds | Where-Object { $before -match "(?m)^$_ " })
Add-Row 1 'the catalogues can be copied' ($copied.Count -eq $kinds.Count) "of $copied bits, $(($before -split "`n").Count) entries"
Test-Network 1 'before' $false
try {
  $done = Invoke-Setup install
  Add-Row 3 'install' ($done.Code -eq 0) $done.Text
  $status = Invoke-Setup status
  Add-Row 3 'status' ($status.Code -eq 0) $status.Text
  $again = Invoke-Setup install
  Add-Row 4 'install again' ($again.Code -eq 0 -and $again.Text -match 'nothing to do') $again.Text
  Test-Network 6 'with the library' $true
  $removed = Remove-OneEntry
  $status = Invoke-Setup status
  Add-Row 10 'a lost entry is noticed' ($removed -eq 0 -and $status.Code -eq 11) $status.Text
  Test-Network 10 'with a lost entry' $null
  $done = Invoke-Setup repair
  $status = Invoke-Setup status
  Add-Row 10 'repair' ($done.Code -eq 0 -and $status.Code -eq 0) $done.Text
  $exempt = $kinds[-1]
  $done = Invoke-Setup install --exempt (Get-Shell $exempt)
  Add-Row 11 'exempt a program' ($done.Code -eq 0) $done.Text
  $said = Test-Program $exempt
  Add-Row 11 'it has no library' ($said -match 'connected=True' -and $said -notmatch 'vyr_lsp') $said
  $done = Invoke-Setup uninstall
  Add-Row 12 'uninstall' ($done.Code -eq 0) $done.Text
  Test-Kills
} finally {
  [void](Invoke-Setup uninstall)
}
$after = Get-Catalogue (Join-Path $Folder 'after.json')
Add-Row 12 'the catalogues are as before' ($after -eq $before) 'before.json, after.json'
Test-Network 12 'after' $false
Write-Host "`n$([Environment]::OSVersion.VersionString), $([Environment]::ProcessorCount) processors"
$rows | Format-Table -AutoSize -Wrap | Out-String -Width 200
if ($rows | Where-Object { $_.Result -ne 'ok' }) { exit 1 }
