" Remove trailing blanks when a buffer is written.
function! s:Tidy() abort
  let l:view = winsaveview()
  silent! %s/\s\+$//e
  call winrestview(l:view)
endfunction

augroup tidy
  autocmd!
  autocmd BufWritePre *.c,*.h call s:Tidy()
augroup END

nnoremap <silent> <leader>t :call <SID>Tidy()<CR>
let g:tidy_enabled = 1
