-- Copy the selected files to the backup disk.
tell application "Finder"
	set chosen to selection as alias list
	if (count of chosen) is 0 then
		display dialog "Nothing is selected." buttons {"OK"} default button 1
		return
	end if
	repeat with f in chosen
		duplicate f to folder "Backup" of disk "Archive" with replacing
	end repeat
end tell
display notification "Backup done" with title "Backup"
